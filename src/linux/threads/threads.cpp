// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/threads.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

#include "linux/proc_file.h"
#include "linux/threads/task_folder.h"
#include "linux/threads/thread_records.h"
#include "linux/threads/threads.h"
#include "platform/current.h"
#include "platform/fork_child.h"

namespace ThreadUtilities::platform {
namespace {

constinit std::atomic<bool> everyEndIsAnnounced{false};

RestartInForkChild forkChildAnnouncesNothingYet([] { everyEndIsAnnounced = false; });

// What a listing says is checked: when the kernel counts as many threads as were listed, and after
// that all of those are still there, then at the count the process had these threads and no
// others. Otherwise it is listed again, a few times; what earlier listings had and the last one
// lacks is added where it is still there. The result has the live threads alone.
template <class State>
std::vector<unsigned int> listThreads(const char* folder, State stateOf) {
    constexpr int mostTries = 6;
    std::vector<unsigned int> live;
    for (int tries = 0; tries < mostTries; ++tries) {
        const std::vector<unsigned int> before = std::exchange(live, {});
        const std::vector<unsigned int> listed = listNumberedEntries(folder);
        bool isWhole = countTasks(folder) == listed.size();
        for (const unsigned int id : listed) {
            const TaskState state = stateOf(id);
            isWhole = isWhole && state != TaskState::Gone;
            if (state == TaskState::Live) {
                live.push_back(id);
            }
        }
        if (isWhole) {
            return live;
        }
        std::vector<unsigned int> sorted = listed;
        std::sort(sorted.begin(), sorted.end());
        for (const unsigned int id : before) {
            if (!std::binary_search(sorted.begin(), sorted.end(), id) &&
                stateOf(id) == TaskState::Live) {
                live.push_back(id);
            }
        }
    }
    return live;
}

// The folder of any thread lists the threads of its whole process, hence the first question. The
// first thread stays listed for as long as the process lasts, even after its end; any other is gone
// at once, and its state need not be asked for.
std::vector<unsigned int> threadsOfOtherProcess(unsigned int processId) {
    if (!hasTask(processId, processId)) {
        return {};
    }
    const ProcPath folder("/proc/", processId, "/task");
    return listThreads(folder.text(), [processId](unsigned int id) {
        if (id == processId) {
            return stateOfTask(processId, id);
        }
        return hasTask(processId, id) ? TaskState::Live : TaskState::Gone;
    });
}

// No descriptor is free, or there is no /proc. Those that are known can be asked for one by one.
// The kernel's count needs no descriptor; it says whether others are to be looked for, and they are
// likely to be found a little above the process's own id, because ids are handed out upward, or
// among the lowest, where that starts again after the highest.
std::vector<unsigned int> threadsFoundWithoutListing(std::vector<unsigned int> known) {
    constexpr unsigned int mostTries = 1 << 15;
    const unsigned int process = currentProcessId();
    const unsigned int self = currentThreadId();
    std::erase_if(known, [process](unsigned int id) { return !hasTask(process, id); });
    if (std::find(known.begin(), known.end(), self) == known.end()) {
        known.push_back(self);
    }
    const std::size_t count = countTasks(ownTaskFolder);
    for (const unsigned int first : {process, 1U}) {
        for (unsigned int id = first; id < first + mostTries && known.size() < count; ++id) {
            if (hasTask(process, id) && std::find(known.begin(), known.end(), id) == known.end()) {
                known.push_back(id);
            }
        }
    }
    return known;
}

}  // namespace

void relyOnNotices() noexcept {
    everyEndIsAnnounced = countTasks(ownTaskFolder) == 1 && countLiveRecords() == 1;
}

std::vector<unsigned int> enumerateThreadsFromSystemInformation(unsigned int processId) {
    return processId == currentProcessId() ? liveThreads({}) : threadsOfOtherProcess(processId);
}

// Only processes stand in the folder of all, each under the id of its first thread.
std::vector<unsigned int> enumerateThreadsFromSnapshot(unsigned int processId) {
    std::vector<unsigned int> processes = listNumberedEntries("/proc");
    std::erase_if(processes, [&](unsigned int id) {
        return id != processId || stateOfTask(processId, id) != TaskState::Live;
    });
    return processes;
}

// First counted, then looked at: each listed thread was announced before, and one that is still
// there at the look was there at the count. Where the kernel counted as many, there were no others.
// An end that the look finds is told, which changes the list and makes the comparison worthless.
bool noticesCover(std::size_t listed) noexcept {
    if (!everyEndIsAnnounced) {
        return false;
    }
    const std::size_t counted = countTasks(ownTaskFolder);
    const std::optional<std::size_t> live = countLiveRecords();
    return live == listed && counted == listed + (firstThreadHasEnded() ? 1 : 0);
}

std::vector<unsigned int> liveThreads(const std::vector<unsigned int>& known) {
    const unsigned int self = currentThreadId();
    std::vector<unsigned int> threads = listThreads(ownTaskFolder, stateOfOwnTask);
    // A /proc that was mounted for other processes than those that this one can see counts in
    // other numbers.
    if (std::find(threads.begin(), threads.end(), self) != threads.end()) {
        return threads;
    }
    return threadsFoundWithoutListing(known);
}

}  // namespace ThreadUtilities::platform
