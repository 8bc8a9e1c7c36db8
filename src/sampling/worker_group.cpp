// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "sampling/worker_group.h"

#include <exception>
#include <functional>
#include <mutex>
#include <thread>

#include "foundation/exceptions.h"

namespace ThreadUtilities {
namespace {

/// Context: the worker's own thread. Nothing leaves it but the note in the run, and the end of the
/// thread where a callback brought it about. The run ends early in either case.
void runWorker(SamplingRun& run, WorkerFunction worker) {
    try {
        worker(run);
    } catch (...) {
        if (isEndOfThread()) {
            run.requestStop();
            throw;
        }
        run.failWithCurrentException();
    }
}

}  // namespace

WorkerGroup::~WorkerGroup() {
    run.requestStop();
    for (std::thread& thread : threads) {
        if (thread.joinable()) {
            thread.join();
        }
    }
}

void WorkerGroup::start(WorkerFunction worker) {
    const std::lock_guard samplingLock(run.samplingMutex);
    threads.emplace_back(runWorker, std::ref(run), worker);
    const auto expected = static_cast<unsigned int>(threads.size());
    std::unique_lock registrationLock(run.registrationMutex);
    run.workerRegistered.wait(registrationLock, [&] { return run.registeredWorkers >= expected; });
}

void WorkerGroup::join() {
    for (std::thread& thread : threads) {
        thread.join();
    }
    // All workers have ended, therefore nobody else touches the note.
    if (run.failure) {
        std::rethrow_exception(run.failure);
    }
}

}  // namespace ThreadUtilities
