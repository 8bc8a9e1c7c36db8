#include "platform/threads.h"

#include <algorithm>
#include <atomic>
#include <utility>

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

// What a listing says is checked: when the kernel counts as many threads as were listed, and after
// that all of those are still there, then at the count the process had these threads and no
// others. Otherwise it is listed again, a few times; what earlier listings had and the last one
// lacks is added where it is still there.
std::vector<unsigned int> listThreads(const char* folder, unsigned int processId) {
    constexpr int Tries = 6;
    const auto isGone = [processId](unsigned int id) { return !hasTask(processId, id); };
    std::vector<unsigned int> listed;
    for (int tries = 0; tries < Tries; ++tries) {
        std::vector<unsigned int> before = std::move(listed);
        listed = listNumberedEntries(folder);
        const bool countIsRight = countTasks(folder) == listed.size();
        const bool someAreGone = std::erase_if(listed, isGone) != 0;
        if (countIsRight && !someAreGone) {
            return listed;
        }
        std::vector<unsigned int> sorted = listed;
        std::sort(sorted.begin(), sorted.end());
        for (const unsigned int id : before) {
            if (!std::binary_search(sorted.begin(), sorted.end(), id) && !isGone(id)) {
                listed.push_back(id);
            }
        }
    }
    return listed;
}

std::vector<unsigned int> threadsOfOtherProcess(unsigned int processId) {
    const ProcPath folder("/proc/", processId, "/task");
    std::vector<unsigned int> threads = listThreads(folder.text(), processId);
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
    everyEndIsAnnounced = countTasks(OwnTaskFolder) == 1;
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
    return everyEndIsAnnounced &&
           countTasks(OwnTaskFolder) == listed + (firstThreadHasEnded() ? 1 : 0);
}

std::vector<unsigned int> liveThreads() {
    std::vector<unsigned int> threads = listThreads(OwnTaskFolder, currentProcessId());
    // A /proc that was mounted for other processes than those that this one can see counts in
    // other numbers.
    if (std::find(threads.begin(), threads.end(), currentThreadId()) == threads.end()) {
        return {};
    }
    std::erase_if(threads, [](unsigned int id) { return stateOfOwnTask(id) != TaskState::Live; });
    return threads;
}

}  // namespace ThreadUtilities::platform
