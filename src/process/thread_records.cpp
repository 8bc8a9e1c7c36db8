// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/thread_records.h"

#include <cstddef>
#include <iterator>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "process/task_files.h"

namespace ThreadUtilities::process {

ThreadRecords::ThreadRecords(std::shared_ptr<ProcessFolder> processFolder)
    : process(std::move(processFolder)) {}

// Bounded: a process that starts and ends threads all the time leaves records behind, of which the
// thread's end is noticed only by who looks at it once more.
std::shared_ptr<ThreadRecord> ThreadRecords::find(unsigned int threadId) {
    constexpr std::size_t most = 8192;
    const std::lock_guard lock(mutex);
    if (records.size() >= most && !records.contains(threadId)) {
        for (auto entry = records.begin(); entry != records.end();) {
            entry = entry->second.use_count() == 1 ? records.erase(entry) : std::next(entry);
        }
    }
    std::shared_ptr<ThreadRecord>& record = records[threadId];
    if (!record) {
        record = std::make_shared<ThreadRecord>();
        record->files = std::make_shared<TaskFiles>(process, threadId);
    }
    return record;
}

void ThreadRecords::forget(unsigned int threadId) {
    const std::lock_guard lock(mutex);
    records.erase(threadId);
}

}  // namespace ThreadUtilities::process
