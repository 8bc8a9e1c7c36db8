// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/run_witness.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

#include "linux/capture/thread_status.h"
#include "linux/kernel_calls.h"
#include "linux/proc_file.h"
#include "linux/task_texts.h"

namespace ThreadUtilities::platform {
namespace {

int openTaskFile(unsigned int threadId, std::string_view name) {
    return openFile(ownTaskPath(threadId, name).text(), O_RDONLY);
}

}  // namespace

// The file "schedstat": nanoseconds on a processor, nanoseconds of waiting for one, number of times
// that one was got. The number grows in the switch to the thread, before the thread's first
// instruction; writes by the thread are seen by others in their order; therefore whoever sees any
// of the thread's new words sees the new number if it reads that later. The processor time alone
// would not do: on a virtual machine it stood still over some runs of microseconds. The times tell
// threads apart that have the same id one after the other.
RunWitness::RunWitness(unsigned int threadId, bool keepsFilesForVisits) noexcept
    : id(threadId), runsFile(openTaskFile(threadId, "/schedstat")) {
    if (keepsFilesForVisits) {
        statusFile = openTaskFile(id, "/status");
        callFile = openTaskFile(id, "/syscall");
    }
}

RunWitness::~RunWitness() {
    for (const int file : {runsFile, statusFile, callFile}) {
        if (file >= 0) {
            kernelCall(SYS_close, file);
        }
    }
}

std::optional<std::uint64_t> RunWitness::readHint() const noexcept {
    return threadRunTime(id);
}

std::optional<ThreadRuns> RunWitness::read() const noexcept {
    if (runsFile >= 0) {
        std::array<char, 80> buffer;
        const long got = kernelCall(SYS_pread64, runsFile, argument(buffer.data()), buffer.size());
        if (got <= 0) {
            return std::nullopt;
        }
        if (const auto runs = parseRunsText({buffer.data(), static_cast<std::size_t>(got)})) {
            return runs;
        }
    }
    // A kernel that does not count: then its clock is the best there is.
    const std::optional<std::uint64_t> time = threadRunTime(id);
    return time ? std::optional(ThreadRuns{0, *time, 0}) : std::nullopt;
}

std::size_t separateOpenFiles() noexcept {
    // `close_range`, by number because older headers do not name it.
    constexpr long closeRange = 436;
    constexpr long unshareFirst = 2;
    constexpr long firstClosed = 3;
    constexpr long last = std::numeric_limits<unsigned int>::max();
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 ||
        kernelCall(closeRange, firstClosed, last, unshareFirst) != 0) {
        return 0;
    }
    constexpr rlim_t forCaptures = 64;  // which open some for moments
    return static_cast<std::size_t>(limit.rlim_cur - std::min(limit.rlim_cur / 2, forCaptures));
}

}  // namespace ThreadUtilities::platform
