// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/threads.h"

#include <windows.h>

#include <tlhelp32.h>

#include "windows/entry.h"
#include "windows/handle.h"
#include "windows/process_records.h"
#include "windows/system_information.h"

namespace ThreadUtilities::platform {
namespace {

static_assert(sizeof(THREADENTRY32) == 28);

}  // namespace

std::vector<unsigned int> enumerateThreadsFromSystemInformation(unsigned int processId) {
    return enumerateThreadsFromSystemInformation(processId, querySystemInformation);
}

std::vector<unsigned int> enumerateThreadsFromSnapshot(unsigned int processId) {
    const HANDLE taken = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (taken == INVALID_HANDLE_VALUE) {
        return {};
    }
    const Handle snapshot(taken);
    std::vector<unsigned int> threads;
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL isThere = Thread32First(taken, &entry); isThere != 0;
         isThere = Thread32Next(taken, &entry)) {
        if (entry.th32OwnerProcessID == processId) {
            threads.push_back(entry.th32ThreadID);
        }
    }
    return threads;
}

// The loader announces every thread that starts and ends, whoever made it.
bool noticesCover(std::size_t) noexcept {
    return noticesArrive();
}

std::vector<unsigned int> liveThreads(const std::vector<unsigned int>&) {
    return enumerateThreadsFromSystemInformation(GetCurrentProcessId());
}

}  // namespace ThreadUtilities::platform
