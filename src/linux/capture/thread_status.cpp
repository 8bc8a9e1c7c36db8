// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/thread_status.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>
#include <utility>

#include "linux/kernel_calls.h"
#include "linux/proc_file.h"

namespace ThreadUtilities::platform {
namespace {

constexpr std::string_view stateName = "State:\t";

/// The system call filters of a thread: a chain, of which a new thread has its creator's. It only
/// ever grows.
struct Filters {
    enum Mode : unsigned int { None, Strict, Chain };
    unsigned int mode = None;
    std::optional<unsigned int> count;  ///< told by kernels from 5.9 on
};

struct StatusLines {
    ThreadStatus status;
    Filters filters;
    unsigned int threadCount = 0;
    bool hasMasks = false;
    bool speaksOfOthers = false;  ///< counts threads in other numbers than this process
};

// The kernel lists a thread's ids in all namespaces of process ids from that of the mounted /proc
// down to the thread's own. If there is one id and it is the one that we know the thread by, /proc
// speaks of this thread in this process's numbers. With more, the folder's name is a number of an
// outer namespace, where ours may stand for another thread. A kernel built without such namespaces
// writes no such line.
bool isOnlyId(std::string_view line, unsigned int threadId) {
    unsigned int first = 0;
    return line.rfind('\t') == line.find('\t') && parseField(line, "NSpid:", 10, first) &&
           first == threadId;
}

// The name is the only text among the lines that the program chooses, and the kernel escapes its
// line ends; so a line's beginning says what it is. False behind the last line of interest.
bool take(std::string_view line, unsigned int threadId, StatusLines& lines) {
    ThreadStatus& status = lines.status;
    unsigned int number = 0;
    if (line.starts_with(stateName) && line.size() > stateName.size()) {
        status.state = line[stateName.size()];
    } else if (parseField(line, "TracerPid:", 10, number)) {
        status.isTraced = number != 0;
    } else if (line.starts_with("NSpid:")) {
        lines.speaksOfOthers = !isOnlyId(line, threadId);
        return !lines.speaksOfOthers;
    } else if (parseField(line, "Threads:", 10, lines.threadCount) ||
               parseField(line, "SigPnd:", 16, status.pendingSignals)) {
        return true;
    } else if (parseField(line, "SigBlk:", 16, status.blockedSignals)) {
        lines.hasMasks = true;
    } else if (parseField(line, "Seccomp:", 10, lines.filters.mode)) {
        return lines.filters.mode == Filters::Chain;
    } else if (parseField(line, "Seccomp_filters:", 10, number)) {
        lines.filters.count = number;
        return false;
    }
    return true;
}

StatusLines readLines(KernelFile&& file, unsigned int threadId) {
    StatusLines lines;
    if (file.isOpen()) {
        LineReader reader(file);
        for (std::string_view line; reader.next(line) && take(line, threadId, lines);) {
        }
    }
    return lines;
}

unsigned int ownId() {
    return static_cast<unsigned int>(kernelCall(SYS_gettid));
}

/// Not inlined: one more buffer need not be on the stack of every reading.
[[gnu::noinline]] StatusLines readOwnLines() {
    const unsigned int self = ownId();
    return readLines(KernelFile(ownTaskPath(self, "/status")), self);
}

// What the process began with. All its threads descend from the one that there was then, therefore
// a chain that is no longer is the same chain.
constinit Filters filtersAtLoad{};

[[gnu::constructor(101)]] void rememberFiltersAtLoad() {
    const StatusLines lines = readOwnLines();
    filtersAtLoad = lines.filters;
    if (lines.threadCount != 1) {
        filtersAtLoad.count.reset();
    }
}

// A filter of the whole process, that of a container say, came with its program or was set before
// the threads were started. It lets this library's calls through, or the calling thread would not
// be here. A thread whose chain is as long as the calling thread's is taken to have the same one.
bool hasFilterOfItsOwn(const Filters& filters) {
    if (filters.mode != Filters::Chain) {
        return filters.mode == Filters::Strict;
    }
    if (!filters.count) {
        return filtersAtLoad.mode != Filters::Chain;
    }
    return filters.count > filtersAtLoad.count.value_or(0) &&
           filters.count != readOwnLines().filters.count;
}

// Whether /proc shows the calling thread, under this process's number for it: where it does not,
// that it lacks another thread says nothing.
bool showsThisProcess() {
    const StatusLines own = readOwnLines();
    return own.status.state != '?' && !own.speaksOfOthers;
}

ThreadStatus withoutFile(const KernelFile& file) {
    ThreadStatus status;
    if (file.isMissing() && showsThisProcess()) {
        status.reading = ThreadStatus::Reading::Gone;
    }
    return status;
}

}  // namespace

ThreadStatus readThreadStatus(unsigned int threadId, int keptFile) noexcept {
    StatusLines lines = readLines(KernelFile(keptFile), threadId);
    if (lines.status.state == '?') {
        KernelFile file(ownTaskPath(threadId, "/status"));
        if (!file.isOpen()) {
            return withoutFile(file);
        }
        lines = readLines(std::move(file), threadId);
    }
    ThreadStatus status = lines.status;
    if (status.state == '?') {
        // Opened, but ended since: the file has become empty.
        return withoutFile(KernelFile(ownTaskPath(threadId, "/status")));
    }
    if (lines.speaksOfOthers || !lines.hasMasks) {
        return {};
    }
    status.hasSystemCallFilter = hasFilterOfItsOwn(lines.filters);
    const bool hasEnded = status.state == 'Z' || status.state == 'X';
    status.reading = hasEnded ? ThreadStatus::Reading::Gone : ThreadStatus::Reading::Known;
    return status;
}

std::optional<std::uint64_t> threadRunTime(unsigned int threadId) noexcept {
    // The kernel's number for "processor time of this thread": the complement of its id, and
    // CPUCLOCK_PERTHREAD_MASK | CPUCLOCK_SCHED. It knows threads of the calling process only.
    const auto clock = static_cast<int>(~threadId << 3 | 6);
    timespec time{};
    if (threadId == 0 || kernelCall(SYS_clock_gettime, clock, argument(&time)) != 0) {
        return std::nullopt;
    }
    constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
    return static_cast<std::uint64_t>(time.tv_sec) * nanosecondsPerSecond +
           static_cast<std::uint64_t>(time.tv_nsec);
}

}  // namespace ThreadUtilities::platform
