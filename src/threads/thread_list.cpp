// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "threads/thread_list.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "foundation/never_destroyed.h"
#include "platform/clock.h"
#include "platform/current.h"
#include "platform/fork_child.h"
#include "platform/notices.h"
#include "platform/threads.h"

namespace ThreadUtilities {
namespace {

// Never destroyed, and constant-initialised where notices arrive before the static objects of the
// library are made; elsewhere made before those of a program that contains the library.
constinit std::atomic<unsigned int> mainThreadId{0};
[[gnu::init_priority(102)]] NeverDestroyed<std::mutex> knownThreadIdsMutex;
NeverDestroyed<std::vector<unsigned int>> knownThreadIds;

// Counts the changes of the list. It is changed under the mutex and read without.
constinit std::atomic<unsigned long long> listChanges{0};

constinit std::atomic<bool> allWereAnnounced{false};  // when the list was last asked for
constinit std::atomic<std::uint32_t> starts{0};
constinit std::atomic<std::uint32_t> sleepers{0};

platform::RestartInForkChild startAfresh([] {
    allWereAnnounced = false;
    sleepers = 0;
    mainThreadId = platform::currentThreadId();
    new (&knownThreadIdsMutex.value) std::mutex;
    new (&knownThreadIds.value) std::vector<unsigned int>;
});

struct KnownThreads {
    std::vector<unsigned int> ids;
    unsigned long long listChanges;
};

KnownThreads copyKnownThreads() {
    const std::lock_guard lock(knownThreadIdsMutex.value);
    return {knownThreadIds.value, listChanges.load()};
}

template <class Change>
void changeKnownThreads(Change change) {
    const std::lock_guard lock(knownThreadIdsMutex.value);
    change(knownThreadIds.value);
    ++listChanges;
}

// A thread that starts has counted itself before it looks for sleepers, and a sleeper has entered
// itself before it looks at the count; therefore at least one of the two sees the other.
void wakeThoseWhoWaitForAStart() noexcept {
    ++starts;
    if (sleepers != 0) {
        platform::wakeSleepers(starts);
    }
}

// The known threads that are live, in their order, then the live ones that were not known.
std::vector<unsigned int> corrected(const std::vector<unsigned int>& known,
                                    std::vector<unsigned int> live) {
    std::vector<unsigned int> sortedLive = live;
    std::sort(sortedLive.begin(), sortedLive.end());
    std::vector<unsigned int> sortedKnown = known;
    std::sort(sortedKnown.begin(), sortedKnown.end());

    std::vector<unsigned int> result = known;
    std::erase_if(result, [&](unsigned int id) {
        return !std::binary_search(sortedLive.begin(), sortedLive.end(), id);
    });
    std::erase_if(live, [&](unsigned int id) {
        return std::binary_search(sortedKnown.begin(), sortedKnown.end(), id);
    });
    result.insert(result.end(), live.begin(), live.end());
    return result;
}

}  // namespace

unsigned int mainThread() noexcept {
    platform::currentThreadId();  // notices where this is a fork child
    return mainThreadId.load(std::memory_order_relaxed);
}

std::vector<unsigned int> ownThreads() {
    platform::currentThreadId();  // notices where this is a fork child
    // Threads that come and go while the list is compared with the system make the comparison
    // worthless; after a few of those the list is corrected instead.
    constexpr int mostTries = 3;
    KnownThreads known = copyKnownThreads();
    for (int tries = 0; tries < mostTries; ++tries) {
        allWereAnnounced = platform::noticesCover(known.ids.size());
        if (!allWereAnnounced) {
            break;
        }
        // No notice arrived between the copy and the comparison, therefore every listed thread
        // was there at the comparison, and the list is what the system had at that moment.
        if (listChanges.load() == known.listChanges) {
            return std::move(known.ids);
        }
        known = copyKnownThreads();
    }
    std::vector<unsigned int> live = platform::liveThreads(known.ids);
    return live.empty() ? std::move(known.ids) : corrected(known.ids, std::move(live));
}

std::uint32_t announcedStarts() noexcept {
    return starts;
}

bool sleepUntilThreadStarts(std::uint32_t seen,
                            std::chrono::steady_clock::time_point time) noexcept {
    if (!allWereAnnounced) {
        return false;
    }
    ++sleepers;
    const bool slept = platform::sleepUntilOrWoken(time, starts, seen);
    --sleepers;
    return slept;
}

std::vector<unsigned int> enumerateProcessThreads(unsigned int processId) {
    std::vector<unsigned int> threads = platform::enumerateThreadsFromSystemInformation(processId);
    if (threads.empty() && processId != 0) {
        threads = platform::enumerateThreadsFromSnapshot(processId);
    }
    return threads;
}

namespace platform {

void onProcessAttach() {
    mainThreadId = currentThreadId();
    changeKnownThreads([](auto& ids) { ids = enumerateProcessThreads(currentProcessId()); });
}

void onThreadAttach() {
    changeKnownThreads([](auto& ids) { ids.push_back(currentThreadId()); });
    wakeThoseWhoWaitForAStart();
}

void onThreadDetach(unsigned int threadId) {
    changeKnownThreads([threadId](auto& ids) { std::erase(ids, threadId); });
}

}  // namespace platform
}  // namespace ThreadUtilities
