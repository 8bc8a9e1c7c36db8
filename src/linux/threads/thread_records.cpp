// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/threads/thread_records.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <new>
#include <optional>
#include <utility>

#include "foundation/never_destroyed.h"
#include "linux/threads/task_folder.h"
#include "platform/current.h"
#include "platform/fork_child.h"

namespace ThreadUtilities::platform {
namespace {

// Others find a record through its bucket and hold the bucket's lock while they look; whoever frees
// it unlinks it under that lock first. Scoped names change all the time, therefore not one lock for
// all. The chain of all records has a lock of its own, which is taken first.
struct Bucket {
    std::mutex mutex;
    ThreadRecord* first = nullptr;
};

struct Registry {
    std::array<Bucket, 256> buckets{};
    std::mutex mutex;
    ThreadRecord* first = nullptr;
    std::size_t size = 0;
    /// Ended threads are looked for when there are this many records: as many as were alive at
    /// the last look once more, so that a start pays for one look at one record, on average.
    std::size_t sizeToSweep = fewRecords;

    static constexpr std::size_t fewRecords = 64;
};

// Threads end, and are named, until the very end of the process.
constinit NeverDestroyed<Registry> lastingRegistry;
constinit Registry& registry = lastingRegistry.value;

constinit std::atomic<bool> firstThreadEnded{false};
constinit ThreadNotices told{};

// A plain pointer: it can be read at any point of the thread's end.
constinit thread_local ThreadRecord* own = nullptr;

Bucket& bucketOf(unsigned int threadId) noexcept {
    return registry.buckets[threadId % registry.buckets.size()];
}

bool hasEnded(const ThreadRecord& record) noexcept {
    return record.hasWitness ? record.life.sawTheEnd()
                             : stateOfOwnTask(record.threadId) != TaskState::Live;
}

void unlinkFromBucket(const ThreadRecord& record) noexcept {
    Bucket& bucket = bucketOf(record.threadId);
    const std::lock_guard lock(bucket.mutex);
    ThreadRecord** link = &bucket.first;
    while (*link != &record) {
        link = &(*link)->nextInBucket;
    }
    *link = record.nextInBucket;
}

// A notice fails when there is no memory for the thread list; a thread that is missing in it is
// found when the list is read.
template <class... Arguments>
void tell(void (*notice)(Arguments...), Arguments... arguments) noexcept {
    if (notice == nullptr) {
        return;
    }
    try {
        notice(arguments...);
    } catch (const std::bad_alloc&) {
    }
}

/// Records that nobody can reach any more, freed with the object: after all locks are given back,
/// because the host's allocator may ask for threads itself.
class Dropped {
 public:
    Dropped() = default;
    ~Dropped() {
        while (first != nullptr) {
            delete std::exchange(first, first->next);
        }
    }
    Dropped(const Dropped&) = delete;
    Dropped& operator=(const Dropped&) = delete;

    void add(ThreadRecord* record) noexcept {
        record->next = first;
        first = record;
    }

 private:
    ThreadRecord* first = nullptr;
};

// Under the registry's lock, so that no thread can begin under the same id between the look at the
// record and the notice. Whether all that are left have witnesses.
template <class IsOver>
bool dropRecords(IsOver isOver, Dropped& dropped) noexcept {
    bool allHaveWitnesses = true;
    for (ThreadRecord** link = &registry.first; *link != nullptr;) {
        ThreadRecord* const record = *link;
        if (!isOver(*record)) {
            allHaveWitnesses = allHaveWitnesses && record->hasWitness;
            link = &record->next;
            continue;
        }
        *link = record->next;
        unlinkFromBucket(*record);
        --registry.size;
        tell(told.gone, record->threadId);
        if (record->threadId == currentProcessId()) {
            firstThreadEnded = true;
        }
        dropped.add(record);
    }
    registry.sizeToSweep = 2 * registry.size + Registry::fewRecords;
    return allHaveWitnesses;
}

bool hasRecord(unsigned int threadId) noexcept {
    Bucket& bucket = bucketOf(threadId);
    const std::lock_guard lock(bucket.mutex);
    for (const ThreadRecord* record = bucket.first; record != nullptr;
         record = record->nextInBucket) {
        if (record->threadId == threadId) {
            return true;
        }
    }
    return false;
}

// Because the calling thread has no record yet, one with its id is of a thread that has ended,
// whether or not a witness shows it.
void makeRoomFor(unsigned int threadId, Dropped& dropped) noexcept {
    if (registry.size >= registry.sizeToSweep || hasRecord(threadId)) {
        const auto isOver = [threadId](const ThreadRecord& record) {
            return record.threadId == threadId || hasEnded(record);
        };
        dropRecords(isOver, dropped);
    }
}

void linkOwn(ThreadRecord* record) noexcept {
    record->threadId = currentThreadId();
    record->hasWitness = record->life.begin();
    record->next = registry.first;
    registry.first = record;
    ++registry.size;
    Bucket& bucket = bucketOf(record->threadId);
    const std::lock_guard lock(bucket.mutex);
    record->nextInBucket = bucket.first;
    bucket.first = record;
}

// The calling thread's record was in nobody's hands, since only that thread changes it. The other
// records may be half changed; they stay where they are, unreachable.
RestartInForkChild keepOnlyTheCallersRecord([] {
    new (&registry) Registry;
    firstThreadEnded = false;
    if (own != nullptr) {
        linkOwn(own);
    }
});

}  // namespace

void setThreadNotices(const ThreadNotices& notices) noexcept {
    told = notices;
}

ThreadRecord* ownRecord() noexcept {
    return own;
}

void enterOwnRecord(ThreadRecord* record, bool announce) noexcept {
    Dropped dropped;
    const std::lock_guard lock(registry.mutex);
    makeRoomFor(currentThreadId(), dropped);
    linkOwn(record);
    own = record;
    if (announce) {
        tell(told.attach);
    }
}

LookAtRecord::LookAtRecord(unsigned int threadId) noexcept : lock(bucketOf(threadId).mutex) {
    for (ThreadRecord* at = bucketOf(threadId).first; at != nullptr; at = at->nextInBucket) {
        if (at->threadId == threadId) {
            const bool ended = at->hasWitness && at->life.sawTheEnd();
            record = ended ? nullptr : at;
            return;
        }
    }
}

std::optional<std::size_t> countLiveRecords() noexcept {
    Dropped dropped;
    const std::lock_guard lock(registry.mutex);
    if (!dropRecords(hasEnded, dropped)) {
        return std::nullopt;
    }
    return registry.size;
}

bool firstThreadHasEnded() noexcept {
    return firstThreadEnded;
}

}  // namespace ThreadUtilities::platform
