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
// lacks is added where it is still there. The result has the live threads alone.
template <class State>
std::vector<unsigned int> listThreads(const char* folder, State stateOf) {
    constexpr int Tries = 6;
    std::vector<unsigned int> live;
    for (int tries = 0; tries < Tries; ++tries) {
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
    std::vector<unsigned int> threads = listThreads(OwnTaskFolder, stateOfOwnTask);
    // A /proc that was mounted for other processes than those that this one can see counts in
    // other numbers.
    if (std::find(threads.begin(), threads.end(), currentThreadId()) == threads.end()) {
        threads.clear();
    }
    return threads;
}

}  // namespace ThreadUtilities::platform
