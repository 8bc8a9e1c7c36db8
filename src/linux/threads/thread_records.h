// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What is kept for each thread of this process that was announced or named: from its start until
// the kernel says that it has ended. Not until the thread's own last words: after those it still
// runs code of others, who want it listed and named.

#include <cstddef>
#include <mutex>
#include <optional>
#include <string>

#include "linux/threads/life_witness.h"
#include "linux/threads/thread_names.h"

namespace ThreadUtilities::platform {

struct Name {
    std::string whole;
    KernelName inKernel{};
};

/// Entered by the thread that it describes, which alone changes it; freed by whoever finds that the
/// thread has ended.
struct ThreadRecord {
    // What a look at all records reads, close together.
    LifeWitness life;
    ThreadRecord* next = nullptr;
    unsigned int threadId = 0;
    bool hasWitness = false;
    ThreadRecord* nextInBucket = nullptr;

    /// What the thread was created to run.
    void (*function)() = nullptr;
    void* argument = nullptr;

    /// What the kernel's name goes back to when the name is taken away.
    KernelName unnamed{};
    Name current;
    /// Read by other threads only while `changing`.
    Name previous;
    bool changing = false;
    unsigned long long changes = 0;
};

/// Whom to tell that the calling thread begins, and that a thread is gone; set once, at load.
struct ThreadNotices {
    void (*attach)() = nullptr;
    void (*gone)(unsigned int threadId) = nullptr;
};
void setThreadNotices(const ThreadNotices& notices) noexcept;

/// The calling thread's; null when it has none.
ThreadRecord* ownRecord() noexcept;

/// Makes `record`, which came from `new`, the calling thread's; takes it over. Both names are set.
/// What was kept under the same thread id is out of date and goes. Announces the thread where asked
/// to; what the announcement throws is swallowed, the list is then found incomplete when it is
/// read.
void enterOwnRecord(ThreadRecord* record, bool announce) noexcept;

/// A thread's record for as long as this object lasts, during which nothing may wait or call the
/// system: the owner and other readers wait meanwhile.
class LookAtRecord {
 public:
    explicit LookAtRecord(unsigned int threadId) noexcept;
    /// None when there is no record, or its thread has ended.
    ThreadRecord* get() const noexcept { return record; }

 private:
    std::unique_lock<std::mutex> lock;
    ThreadRecord* record = nullptr;
};

/// Gives back what is kept of threads that have ended, and says of each that it is gone. The number
/// of records left whose threads are all proven alive; none where that cannot be proven.
std::optional<std::size_t> countLiveRecords() noexcept;

/// Whether the process's first thread has ended while the process goes on, as `countLiveRecords`
/// last found it. The system counts it among the threads until the process ends.
bool firstThreadHasEnded() noexcept;

}  // namespace ThreadUtilities::platform
