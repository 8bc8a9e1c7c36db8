// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <thread>
#include <vector>

#include "sampling/sampling_run.h"

namespace ThreadUtilities {

using WorkerFunction = void (*)(SamplingRun&);

/// The worker threads of one run. No worker outlives it: where the starting or joining thread is
/// torn away (a worker that cannot be started, a cancelled thread), the rest are told to stop and
/// are joined.
class WorkerGroup {
 public:
    explicit WorkerGroup(SamplingRun& sharedRun) : run(sharedRun) {}
    ~WorkerGroup();

    WorkerGroup(const WorkerGroup&) = delete;
    WorkerGroup& operator=(const WorkerGroup&) = delete;

    /// Starts one more worker and waits until it has registered, so that it is never sampled.
    /// Throws what the standard library throws when a thread cannot be started.
    void start(WorkerFunction worker);

    /// Waits for all workers, then throws what the first failing one threw.
    void join();

 private:
    SamplingRun& run;
    std::vector<std::thread> threads;
};

}  // namespace ThreadUtilities
