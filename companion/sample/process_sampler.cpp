// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "sample/process_sampler.h"

#include <ThreadUtilities/Threads.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "process/target.h"
#include "report/report_reader.h"

namespace ThreadUtilities::companion {
namespace {

constexpr std::size_t mostFrames = 256;

std::string taskFile(unsigned int process, unsigned int thread, const char* file) {
    return "/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) + '/' + file;
}

std::string threadName(unsigned int process, unsigned int thread) {
    std::string name = procText(taskFile(process, thread, "comm"));
    return name.substr(0, name.find_last_not_of('\n') + 1);
}

/// When it was started, and where the stack of the program that it runs begins: another one has
/// another.
std::string programStartOf(unsigned int process) {
    const std::string stat = procText("/proc/" + std::to_string(process) + "/stat");
    const std::size_t name = stat.rfind(')');
    if (name == std::string::npos) {
        return {};
    }
    std::istringstream fields(stat.substr(name + 1));
    std::string field;
    std::string start;
    for (int number = 3; number <= 28 && fields >> field; ++number) {
        if (number == 22 || number == 28) {
            start += ' ';
            start += field;
        }
    }
    return start;
}

}  // namespace

ProcessSampler::ProcessSampler(ProcessCapture processCapture,
                               std::optional<unsigned int> onlyThread,
                               std::chrono::milliseconds sampleInterval, FrameTable& frameTable)
    : capture(std::move(processCapture)),
      only(onlyThread),
      interval(sampleInterval),
      frames(capture.processId(), frameTable) {}

std::vector<unsigned int> ProcessSampler::threadsToSee() {
    std::vector<unsigned int> all = getThreadIds(capture.processId());
    if (all.empty()) {
        ended = SamplingEnd::processEnded;
    } else if (only) {
        const bool lives = std::find(all.begin(), all.end(), *only) != all.end();
        all.assign(lives ? 1 : 0, *only);
        if (!lives) {
            ended = SamplingEnd::threadEnded;
        }
    }
    return all;
}

/// How many passes this one stands for: more than one where some could not be begun in time.
std::uint64_t ProcessSampler::passesDue() {
    const auto due = static_cast<std::uint64_t>((Clock::now() - begin) / interval) + 1;
    const std::uint64_t now = due > passes ? due - passes : 1;
    passes += now;
    return now;
}

void ProcessSampler::noticeNewProgram() {
    std::string start = programStartOf(capture.processId());
    if (start != programStart) {
        programStart = std::move(start);
        frames.forget();
    }
}

/// False where there is no such thread any more.
bool ProcessSampler::sample(unsigned int id, Thread& thread) {
    if (thread.runsAtRest && thread.runs.read() == thread.runsAtRest) {
        thread.samples.addAgain();
        ++count.taken;
        return true;
    }
    const ThreadLook look = capture.look(id, addresses, mostFrames);
    if (look.result == LookResult::NoSuchThread) {
        return false;
    }
    thread.runsAtRest.reset();
    if (look.frameCount == 0) {
        ++count.failed[look.result];
        count.tracer = look.result == LookResult::Traced ? look.tracer : count.tracer;
        return true;
    }
    ++count.taken;
    count.cutShort += look.isCutShort ? 1 : 0;
    thread.samples.add(frames.all(look, addresses));
    if (look.result == LookResult::Blocked) {
        thread.runsAtRest = look.runs;
    }
    return true;
}

void ProcessSampler::pass() {
    const std::unique_lock lock(mutex, std::try_to_lock);
    if (!lock) {
        return;
    }
    const std::vector<unsigned int> ids = threadsToSee();
    if (!std::exchange(isPrepared, true)) {
        if (ended == SamplingEnd::threadEnded) {
            throw InputError("process " + std::to_string(capture.processId()) + " has no thread " +
                             std::to_string(*only));
        }
        for (const unsigned int id : ids) {
            capture.look(id, addresses, mostFrames);
        }
        begin = Clock::now();
        return;
    }
    noticeNewProgram();
    const std::uint64_t due = passesDue();
    for (const unsigned int id : ids) {
        const auto [entry, isNew] = threads.try_emplace(id);
        Thread& thread = entry->second;
        if (isNew) {
            thread.name = threadName(capture.processId(), id);
            thread.runs = RunFile(taskFile(capture.processId(), id, "schedstat"));
        }
        if (sample(id, thread)) {
            count.due += due;
        }
    }
}

std::optional<SamplingEnd> ProcessSampler::end() const {
    const std::lock_guard lock(mutex);
    return ended;
}

SamplingCounts ProcessSampler::counts() const {
    const std::lock_guard lock(mutex);
    return count;
}

std::size_t ProcessSampler::threadCount() const {
    const std::lock_guard lock(mutex);
    return threads.size();
}

Profile ProcessSampler::takeProfile() {
    const std::lock_guard lock(mutex);
    Profile profile;
    profile.parallelism = 1;
    for (auto& [id, thread] : threads) {
        std::string name = threadName(capture.processId(), id);
        profile.threads.push_back(
            thread.samples.profile(id, name.empty() ? thread.name : std::move(name)));
        profile.totalSamples += profile.threads.back().samples;
        if (profile.threads.back().samples == 0) {
            profile.threads.pop_back();
        }
    }
    return profile;
}

}  // namespace ThreadUtilities::companion
