// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Samples of the threads of another process.

#include <ThreadUtilities/ProcessCapture.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "process/process_frames.h"
#include "report/report.h"
#include "sample/run_file.h"
#include "sample/sampled_thread.h"

namespace ThreadUtilities::companion {

/// Why a run is over before its time.
enum class SamplingEnd : std::uint8_t { onTime, interrupted, processEnded, threadEnded };

struct SamplingCounts {
    std::uint64_t due = 0;
    std::uint64_t taken = 0;
    std::uint64_t cutShort = 0;
    /// Of those without frames, what stood in the way.
    std::map<LookResult, std::uint64_t> failed;
    unsigned int tracer = 0;

    std::uint64_t missed() const { return due - taken; }
};

/// Takes the samples of one run. The library's entry points are its clock: they call `pass`, which
/// sees to all threads at once, for three reasons. Threads besides a focus thread are sampled there
/// only on machines with many processors, and only those that were there at the beginning. And
/// frames can be named in the library's own report only as long as the process lives, so that the
/// report of one that ends meanwhile would be empty: here they are asked for as they are met.
class ProcessSampler {
 public:
    ProcessSampler(ProcessCapture processCapture, std::optional<unsigned int> onlyThread,
                   std::chrono::milliseconds sampleInterval, FrameTable& frameTable);

    /// One sample of each thread. The first call only prepares. Where two calls meet, the later one
    /// does nothing.
    void pass();

    /// Set by `pass` when there is nothing to sample any more.
    std::optional<SamplingEnd> end() const;

    Profile takeProfile();
    SamplingCounts counts() const;
    std::size_t threadCount() const;

 private:
    using Clock = std::chrono::steady_clock;

    struct Thread {
        std::string name;
        SampledThread samples;
        RunFile runs;
        /// When it was last seen, if it was at rest then: as long as it has not run, it is in the
        /// same place.
        std::optional<ThreadRunCount> runsAtRest;
    };

    std::vector<unsigned int> threadsToSee();
    std::uint64_t passesDue();
    void noticeNewProgram();
    bool sample(unsigned int id, Thread& thread);

    ProcessCapture capture;
    std::optional<unsigned int> only;
    std::chrono::nanoseconds interval;
    ProcessFrames frames;
    mutable std::mutex mutex;
    bool isPrepared = false;
    Clock::time_point begin;
    /// That were due so far.
    std::uint64_t passes = 0;
    std::string programStart;
    std::map<unsigned int, Thread> threads;
    std::vector<unsigned long long> addresses;
    SamplingCounts count;
    std::optional<SamplingEnd> ended;
};

}  // namespace ThreadUtilities::companion
