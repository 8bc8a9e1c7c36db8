// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Stops threads of another process, each on a thread of its own.
//
// The kernel knows a seizure by the thread that made it, and takes it back for good only when the
// seized thread stands still or that thread ends. A thread that never came to its stop would
// therefore be stopped later, by nobody, were it seized by a caller's thread that lives on. So each
// stop is made by a worker, which waits for the thread long
// after its caller has given up, and ends when it could not let go.

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/memory.h"
#include "platform/thread_context.h"
#include "process/seized_thread.h"
#include "process/task_files.h"

namespace ThreadUtilities::process {

/// One stop: what is asked for, and what came of it. Belongs to caller and worker together.
struct Stop {
    enum class Outcome {
        Copied,
        AtRest,    ///< it was blocked, and was not stopped
        Gone,      ///< there is no such thread
        Refused,   ///< by the system, or because it is being traced
        NoAnswer,  ///< in time
    };

    unsigned int threadId = 0;
    std::shared_ptr<const TaskFiles> files;
    SteadyTime deadline;
    std::size_t copySize = 0;

    Outcome outcome = Outcome::NoAnswer;
    platform::Registers registers{};
    platform::ReadableRange stack;
    std::vector<std::byte> copy;
    std::chrono::nanoseconds length{0};  ///< of the stop; 0 without one
};

/// The workers of one process's captures; as many as there are stops at a time, of which a few are
/// kept for the next. By any number of threads at once.
class StopWorkers {
 public:
    StopWorkers() = default;
    ~StopWorkers();
    StopWorkers(const StopWorkers&) = delete;
    StopWorkers& operator=(const StopWorkers&) = delete;

    /// Throws where no thread can be started. Returns at most some milliseconds after the deadline.
    /// False where the worker was not done by then: `stop` stays the worker's.
    bool make(const std::shared_ptr<Stop>& stop);

 private:
    struct Worker;
    struct Loan;
    static void run(const std::shared_ptr<Worker>& worker);
    std::shared_ptr<Worker> take();
    static std::shared_ptr<Worker> start();
    void giveBack(std::shared_ptr<Worker> worker, bool isUsable);

    std::mutex mutex;
    std::vector<std::shared_ptr<Worker>> idle;
};

}  // namespace ThreadUtilities::process
