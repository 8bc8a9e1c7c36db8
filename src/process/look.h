// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The ladder: the ways of looking at one thread of another process, the gentlest first.

#include <ThreadUtilities/ProcessCapture.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <vector>

#include "platform/thread_context.h"
#include "process/process_walker.h"
#include "process/stop_worker.h"
#include "process/thread_records.h"

namespace ThreadUtilities::process {

/// One look at one thread. Whoever makes it has locked the record.
class Look {
 public:
    Look(ProcessWalker& processWalker, StopWorkers& stopWorkers, ThreadRecord& threadRecord,
         unsigned int thread, std::vector<unsigned long long>& room, std::size_t most);

    ThreadLook make(bool mayStop);
    /// The time for which the thread was stopped.
    std::chrono::nanoseconds stopLength() const noexcept { return stopped; }

 private:
    enum class AtRest {
        Seen,
        NotSeen,  ///< runs, did so meanwhile, or needs to be stopped for more
        Settled,  ///< cannot be looked at at all
    };
    enum class Stopping { Settled, TryAgain, GiveUp };

    bool hasNotRunSince();
    AtRest lookAtRest(bool takesPart);
    bool walkAtRest(const platform::BlockedAt& at);
    void remember();
    Stopping stop();
    Stopping makeStop();
    Stopping explainRefusal();
    void walkCopy(const Stop& made);
    void walk(platform::ThreadContext& context, bool mayReadStack);
    AtRest settle(LookResult result);

    ProcessWalker& walker;
    StopWorkers& workers;
    ThreadRecord& record;
    unsigned int threadId;
    std::vector<unsigned long long>& frames;
    std::size_t limit;
    SteadyTime deadline;
    ThreadLook look;
    WalkEnd end = WalkEnd::EndOfStack;
    bool leftCopy = false;
    int refusals = 0;
    std::chrono::nanoseconds stopped{0};
};

}  // namespace ThreadUtilities::process
