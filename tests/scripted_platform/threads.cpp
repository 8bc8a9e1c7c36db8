// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/threads.h"

#include "scripted_platform/threads_script.h"

namespace ThreadUtilities {
namespace scripted {
ThreadsScript threads;
}

namespace platform {
namespace {

std::vector<unsigned int> entry(const std::map<unsigned int, std::vector<unsigned int>>& lists,
                                unsigned int processId) {
    const auto found = lists.find(processId);
    return found == lists.end() ? std::vector<unsigned int>() : found->second;
}

}  // namespace

std::vector<unsigned int> enumerateThreadsFromSystemInformation(unsigned int processId) {
    ++scripted::threads.systemInformationCalls;
    return entry(scripted::threads.systemInformation, processId);
}

std::vector<unsigned int> enumerateThreadsFromSnapshot(unsigned int processId) {
    ++scripted::threads.snapshotCalls;
    return entry(scripted::threads.snapshot, processId);
}

bool noticesCover(std::size_t listed) noexcept {
    return scripted::threads.noticesCover(listed);
}

std::vector<unsigned int> liveThreads(const std::vector<unsigned int>&) {
    ++scripted::threads.liveCalls;
    return scripted::threads.live;
}

}  // namespace platform
}  // namespace ThreadUtilities
