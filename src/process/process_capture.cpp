// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/Export.h>
#include <ThreadUtilities/ProcessCapture.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "process/look.h"
#include "process/process_walker.h"
#include "process/refusal.h"
#include "process/stop_worker.h"
#include "process/task_files.h"
#include "process/thread_records.h"

namespace ThreadUtilities {
namespace {

using Nanoseconds = std::chrono::nanoseconds;

/// `CaptureStatistics` that any number of threads add to.
class Counters {
 public:
    void add(const ThreadLook& look, Nanoseconds stop) noexcept {
        ++looks;
        blocked += look.result == LookResult::Blocked ? 1 : 0;
        stopped += look.result == LookResult::Stopped ? 1 : 0;
        missed += look.frameCount == 0 ? 1 : 0;
        cutShort += look.isCutShort ? 1 : 0;
        stoppedInAll += stop.count();
        Nanoseconds::rep longest = longestStop;
        while (longest < stop.count() &&
               !longestStop.compare_exchange_weak(longest, stop.count())) {
        }
    }

    CaptureStatistics read() const noexcept {
        return {looks,
                blocked,
                stopped,
                missed,
                cutShort,
                Nanoseconds(longestStop),
                Nanoseconds(stoppedInAll)};
    }

 private:
    std::atomic<std::uint64_t> looks{0};
    std::atomic<std::uint64_t> blocked{0};
    std::atomic<std::uint64_t> stopped{0};
    std::atomic<std::uint64_t> missed{0};
    std::atomic<std::uint64_t> cutShort{0};
    std::atomic<Nanoseconds::rep> longestStop{0};
    std::atomic<Nanoseconds::rep> stoppedInAll{0};
};

std::shared_ptr<process::ProcessFolder> openLookable(unsigned int processId) {
    auto folder = std::make_shared<process::ProcessFolder>(processId);
    process::requireLookable(processId, *folder);
    return folder;
}

}  // namespace

ProcessCaptureError::~ProcessCaptureError() = default;

// Hidden, because the visible class around it would make it visible too.
class [[gnu::visibility("hidden")]] ProcessCapture::State {
 public:
    explicit State(unsigned int process)
        : id(process), folder(openLookable(process)), records(folder), walker(process) {}

    ThreadLook look(unsigned int threadId, std::vector<unsigned long long>& frames,
                    std::size_t limit, bool mayStop) {
        const std::shared_ptr<process::ThreadRecord> record = records.find(threadId);
        const std::lock_guard lock(record->mutex);
        process::Look attempt(walker, workers, *record, threadId, frames, limit);
        const ThreadLook look = attempt.make(mayStop);
        if (look.result == LookResult::NoSuchThread) {
            records.forget(threadId);
        }
        counters.add(look, attempt.stopLength());
        return look;
    }

    const unsigned int id;
    const std::shared_ptr<process::ProcessFolder> folder;
    process::ThreadRecords records;
    process::StopWorkers workers;
    Counters counters;
    ProcessWalker walker;
};

ProcessCapture::ProcessCapture(unsigned int processId)
    : state(std::make_shared<State>(processId)) {}

unsigned int ProcessCapture::processId() const noexcept {
    return state->id;
}

unsigned long long ProcessCapture::operator()(unsigned int processId, const unsigned int& threadId,
                                              std::vector<unsigned long long>& frames,
                                              unsigned long long limit) const {
    return processId == state->id ? state->look(threadId, frames, limit, true).frameCount : 0;
}

ThreadLook ProcessCapture::look(unsigned int threadId, std::vector<unsigned long long>& frames,
                                std::size_t limit) const {
    return state->look(threadId, frames, limit, true);
}

ThreadLook ProcessCapture::lookWithoutStop(unsigned int threadId,
                                           std::vector<unsigned long long>& frames,
                                           std::size_t limit) const {
    return state->look(threadId, frames, limit, false);
}

std::size_t ProcessCapture::readMemory(std::uint64_t address, void* out,
                                       std::size_t size) const noexcept {
    return state->walker.readMemory(address, out, size);
}

CaptureStatistics ProcessCapture::statistics() const noexcept {
    return state->counters.read();
}

}  // namespace ThreadUtilities
