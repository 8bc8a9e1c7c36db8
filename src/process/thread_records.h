// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What is kept of the threads of a process between looks.

#include <ThreadUtilities/ProcessCapture.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

#include "process/stop_worker.h"
#include "process/task_files.h"

namespace ThreadUtilities::process {

/// A thread found at rest. As long as its `ThreadRunCount` is the same it has not run since, so
/// that nothing of this has changed.
struct LookAtRest {
    ThreadLook look;
    std::vector<unsigned long long> frames;
    std::size_t limit = 0;
};

struct ThreadRecord {
    std::mutex mutex;  ///< held for as long as a look takes: two at once would see each other
    std::shared_ptr<const TaskFiles> files;
    std::optional<LookAtRest> lastAtRest;
    std::shared_ptr<Stop> stop;  ///< of the last stop, for its memory
    std::size_t copySize = std::size_t{16} * 1024;
};

class ThreadRecords {
 public:
    explicit ThreadRecords(std::shared_ptr<ProcessFolder> processFolder);

    std::shared_ptr<ThreadRecord> find(unsigned int threadId);
    /// For a thread that has ended; a thread that takes its id gets a record of its own.
    void forget(unsigned int threadId);

 private:
    std::shared_ptr<ProcessFolder> process;
    std::mutex mutex;
    std::unordered_map<unsigned int, std::shared_ptr<ThreadRecord>> records;
};

}  // namespace ThreadUtilities::process
