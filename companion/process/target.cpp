// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/target.h"

#include <ThreadUtilities/Threads.h>

#include <charconv>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <ios>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>

#include "support/terminal.h"

namespace ThreadUtilities::companion {
namespace {

/// Whether the process has the same namespace of a kind. Where one may not ask, it is taken for the
/// same: containers whose processes may be looked at may be asked.
bool sharesNamespace(const std::filesystem::path& process, const char* kind) {
    const std::string theirs = procLink(process / "ns" / kind);
    const std::string ours = procLink(std::filesystem::path("/proc/self/ns") / kind);
    return theirs.empty() || ours.empty() || theirs == ours;
}

/// The innermost of its ids: the last one in the line "NSpid:	OUTER	...	INNER".
unsigned int idInside(const std::filesystem::path& task, unsigned int id) {
    std::istringstream status(procText(task / "status"));
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("NSpid:")) {
            const std::size_t last = line.find_last_of(" \t") + 1;
            std::from_chars(line.data() + last, line.data() + line.size(), id);
            break;
        }
    }
    return id;
}

/// proc(5): "PID (NAME) STATE" and 19 numbers, the last of them the time of its start. Nothing
/// where the thread is no more.
std::optional<TargetThread> readThread(const std::filesystem::path& task, unsigned int id) {
    const std::string stat = procText(task / "stat");
    const std::size_t open = stat.find('(');
    const std::size_t close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) {
        return std::nullopt;
    }
    TargetThread thread{id, id, stat.substr(open + 1, close - open - 1), false, 0};
    std::istringstream rest(stat.substr(close + 1));
    char state = 0;
    std::string skipped;
    rest >> state;
    for (int field = 4; field < 22; ++field) {
        rest >> skipped;
    }
    rest >> thread.startTime;
    thread.hasEnded = state == 'Z' || state == 'X';
    return thread;
}

}  // namespace

std::string procText(const std::filesystem::path& file) {
    // Through the stream, because its buffer throws where a process ends while its file is read.
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return std::move(text).str();
}

std::string procLink(const std::filesystem::path& link) {
    std::error_code ignored;
    return std::filesystem::read_symlink(link, ignored).string();
}

std::string processName(unsigned int processId) {
    std::string name = procText("/proc/" + std::to_string(processId) + "/comm");
    return name.substr(0, name.find_last_not_of('\n') + 1);
}

Target::Target(ProcessCapture processCapture)
    : capture(std::move(processCapture)),
      hasOurIds(sharesNamespace(procFolder(), "pid")),
      hasOurClocks(sharesNamespace(procFolder(), "time")) {
    listThreads();
}

std::filesystem::path Target::procFolder() const {
    return "/proc/" + std::to_string(processId());
}

bool Target::listThreads() {
    list.clear();
    byId.clear();
    byIdInside.clear();
    nameCounts.clear();
    for (const unsigned int id : getThreadIds(processId())) {
        const std::filesystem::path task = procFolder() / "task" / std::to_string(id);
        auto thread = readThread(task, id);
        if (!thread) {
            continue;
        }
        if (!hasOurIds) {
            thread->idInside = idInside(task, id);
        }
        if (!thread->hasEnded) {
            byId.emplace(thread->id, list.size());
            byIdInside.emplace(thread->idInside, list.size());
        }
        ++nameCounts[thread->name];
        list.push_back(std::move(*thread));
    }
    return !byId.empty();
}

const TargetThread* Target::thread(unsigned int id) const {
    const auto found = byId.find(id);
    return found == byId.end() ? nullptr : &list[found->second];
}

const TargetThread* Target::threadInside(unsigned int id) const {
    const auto found = byIdInside.find(id);
    return found == byIdInside.end() ? nullptr : &list[found->second];
}

std::string Target::label(unsigned int threadId) const {
    const TargetThread* const known = thread(threadId);
    if (known == nullptr || known->name.empty()) {
        return "thread " + std::to_string(threadId);
    }
    const auto count = nameCounts.find(known->name);
    return printable(known->name) +
           (count->second == 1 ? "" : " (" + std::to_string(threadId) + ')');
}

}  // namespace ThreadUtilities::companion
