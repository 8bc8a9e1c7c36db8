#include "platform/threads.h"

#include <algorithm>
#include <atomic>

#include "platform/current.h"
#include "platform/linux/list_coverage.h"
#include "platform/linux/proc_file.h"
#include "platform/linux/task_folder.h"
#include "platform/linux/thread_ends.h"
#include "platform/process_copy.h"

namespace ThreadUtilities::platform {
namespace {

constinit std::atomic<bool> everyEndIsAnnounced{false};

RestartInCopy copyAnnouncesNothingYet([] { everyEndIsAnnounced = false; });

// A listing from which no listed thread has gone is whole (see listNumberedEntries). Otherwise it
// is made again, a few times; what earlier listings had and the last one lacks is then added
// where it is still there.
template <class List, class IsGone>
std::vector<unsigned int> listUntilWhole(List list, IsGone isGone) {
    constexpr int Tries = 6;
    std::vector<unsigned int> before;
    std::vector<unsigned int> listed;
    for (int tries = 0; tries < Tries; ++tries) {
        listed = list();
        const std::size_t sizeAtOnce = listed.size();
        std::erase_if(listed, isGone);
        if (listed.size() == sizeAtOnce) {
            return listed;
        }
        std::vector<unsigned int> sorted = listed;
        std::sort(sorted.begin(), sorted.end());
        for (const unsigned int id : before) {
            if (!std::binary_search(sorted.begin(), sorted.end(), id) && !isGone(id)) {
                listed.push_back(id);
            }
        }
        before = listed;
    }
    return listed;
}

std::vector<unsigned int> threadsOfOtherProcess(unsigned int processId) {
    const ProcPath folder("/proc/", processId, "/task");
    std::vector<unsigned int> threads =
        listUntilWhole([&] { return listNumberedEntries(folder.text()); },
                       [&](unsigned int id) { return !hasTask(processId, id); });
    // The folder of any thread lists the threads of its whole process, the first one first: an id
    // that does not come first is not a process's.
    if (threads.empty() || threads.front() != processId) {
        return {};
    }
    // The first thread stays listed for as long as the process lasts, even after its end.
    if (stateOfTask(processId, processId) != TaskState::Live) {
        threads.erase(threads.begin());
    }
    return threads;
}

}  // namespace

void relyOnNotices() noexcept {
    everyEndIsAnnounced = countOwnTasks() == 1;
}

std::vector<unsigned int> enumerateThreadsFromSystemInformation(unsigned int processId) {
    return processId == currentProcessId() ? liveThreads() : threadsOfOtherProcess(processId);
}

// Only processes stand in the folder of all, each under the id of its first thread.
std::vector<unsigned int> enumerateThreadsFromSnapshot(unsigned int processId) {
    std::vector<unsigned int> processes = listNumberedEntries("/proc");
    std::erase_if(processes, [&](unsigned int id) {
        return id != processId || stateOfTask(processId, id) != TaskState::Live;
    });
    return processes;
}

// All listed threads are there, because each would announce its end. Where the kernel counts as
// many tasks as are listed, there are no others.
bool noticesCover(std::size_t listed) noexcept {
    return everyEndIsAnnounced && countOwnTasks() == listed + (firstThreadHasEnded() ? 1 : 0);
}

std::vector<unsigned int> liveThreads() {
    std::vector<unsigned int> threads =
        listUntilWhole([] { return listNumberedEntries("/proc/self/task"); },
                       [](unsigned int id) { return !hasTask(currentProcessId(), id); });
    // A /proc that was mounted for other processes than those that this one can see counts in
    // other numbers.
    if (std::find(threads.begin(), threads.end(), currentThreadId()) == threads.end()) {
        return {};
    }
    std::erase_if(threads, [](unsigned int id) { return stateOfOwnTask(id) != TaskState::Live; });
    return threads;
}

}  // namespace ThreadUtilities::platform
