// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/threads/task_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <system_error>
#include <vector>

#include "foundation/checked_bytes.h"
#include "linux/descriptor.h"
#include "linux/kernel_calls.h"
#include "linux/proc_file.h"

namespace ThreadUtilities::platform {
namespace {

// struct linux_dirent64 (getdents64(2)) has no declaration in the C library's headers. The
// library's own `readdir` would allocate 32 KB for each call.
constexpr std::size_t recordSizeOffset = 16;
constexpr std::size_t nameOffset = 19;
constexpr std::size_t entriesBufferSize = 4096;  // fits on the smallest stack

// The flag of a thread that has begun to end, in the ninth field of its "stat" file (proc(5);
// include/linux/sched.h).
constexpr unsigned long flagExiting = 0x4;

void appendNumbers(std::vector<unsigned int>& numbers, const std::uint8_t* entries,
                   std::size_t size) {
    ByteCursor all(entries, entries + size);
    while (!all.atEnd() && all.ok()) {
        ByteCursor entry = all;
        entry.skip(recordSizeOffset);
        const auto entrySize = entry.read<std::uint16_t>();
        if (!entry.ok() || entrySize <= nameOffset || entrySize > all.remaining()) {
            return;
        }
        const auto* const name = reinterpret_cast<const char*>(all.data() + nameOffset);
        const char* const nameEnd = name + strnlen(name, entrySize - nameOffset);
        unsigned int number = 0;
        const auto [end, error] = std::from_chars(name, nameEnd, number);
        if (error == std::errc() && end == nameEnd) {
            numbers.push_back(number);
        }
        all.skip(entrySize);
    }
}

/// A folder for as long as it is read.
class Folder {
 public:
    explicit Folder(const char* path) noexcept
        : descriptor(openFile(path, O_RDONLY | O_DIRECTORY)) {}

    /// The number of bytes read; 0 at the end and on failure.
    std::size_t read(std::uint8_t* buffer, std::size_t size) noexcept {
        const long length =
            kernelCall(SYS_getdents64, descriptor.get(), argument(buffer), static_cast<long>(size));
        return length > 0 ? static_cast<std::size_t>(length) : 0;
    }

 private:
    Descriptor descriptor;
};

// "id (name) state parent group session terminal foreground flags ...": the name may hold
// parentheses and spaces, the fields after the last parenthesis may not.
TaskState stateFromStat(std::string_view line) noexcept {
    const std::size_t nameEnd = line.rfind(") ");
    if (nameEnd == std::string_view::npos) {
        return TaskState::Gone;
    }
    line.remove_prefix(nameEnd + 2);
    const char state = line.front();
    for (int field = 0; field < 6; ++field) {
        line.remove_prefix(std::min(line.find(' '), line.size() - 1) + 1);
    }
    unsigned long flags = 0;
    std::from_chars(line.data(), line.data() + line.size(), flags);
    const bool ended = state == 'Z' || state == 'X' || (flags & flagExiting) != 0;
    return ended ? TaskState::Ending : TaskState::Live;
}

// Every thread of the C library's has a list of robust futexes from its first to its last
// instruction, and the kernel takes that list from an ending thread before it lets anybody join
// it. A list therefore proves that the thread has not ended, five times faster than its "stat" file
// does. No list proves nothing: a thread made by a bare `clone`, or one that begins.
bool hasRobustList(unsigned int threadId) noexcept {
    robust_list_head* head = nullptr;
    std::size_t size = 0;
    return kernelCall(SYS_get_robust_list, threadId, argument(&head), argument(&size)) == 0 &&
           head != nullptr;
}

TaskState stateFromFile(const ProcPath& path) noexcept {
    std::array<char, 512> line;
    return stateFromStat(readProcFile(path, line.data(), line.size()));
}

}  // namespace

std::vector<unsigned int> listNumberedEntries(const char* path) {
    std::vector<unsigned int> numbers;
    Folder folder(path);
    alignas(8) std::array<std::uint8_t, entriesBufferSize> entries;
    while (const std::size_t size = folder.read(entries.data(), entries.size())) {
        appendNumbers(numbers, entries.data(), size);
    }
    return numbers;
}

// The kernel counts every task as a link, beside the folder's own two.
std::size_t countTasks(const char* path) noexcept {
    struct stat folder;
    if (stat(path, &folder) != 0 || folder.st_nlink < 2) {
        return 0;
    }
    return folder.st_nlink - 2;
}

TaskState stateOfOwnTask(unsigned int threadId) noexcept {
    if (hasRobustList(threadId)) {
        return TaskState::Live;
    }
    return stateFromFile(ownTaskPath(threadId, "/stat"));
}

TaskState stateOfTask(unsigned int processId, unsigned int threadId) noexcept {
    if (hasRobustList(threadId)) {
        return TaskState::Live;
    }
    const ProcPath path("/proc/", threadId, "/stat");
    const TaskState state = stateFromFile(path);
    return state == TaskState::Gone && hasTask(processId, threadId) ? TaskState::Live : state;
}

bool hasTask(unsigned int processId, unsigned int threadId) noexcept {
    return kernelCall(SYS_tgkill, processId, threadId, 0) != -ESRCH;
}

}  // namespace ThreadUtilities::platform
