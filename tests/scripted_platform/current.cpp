// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/current.h"

#include <atomic>

#include "scripted_platform/current_script.h"

namespace ThreadUtilities {
namespace {

std::atomic<unsigned int> nextThreadId{1000};
thread_local unsigned int ownThreadId = 0;
thread_local unsigned int scriptedThreadId = 0;
std::atomic<unsigned int> scriptedProcessId{77};

}  // namespace

namespace scripted {
void setCurrentThreadId(unsigned int threadId) {
    scriptedThreadId = threadId;
}
void setCurrentProcessId(unsigned int processId) {
    scriptedProcessId = processId;
}
}  // namespace scripted

namespace platform {

unsigned int currentThreadId() noexcept {
    if (scriptedThreadId != 0) {
        return scriptedThreadId;
    }
    if (ownThreadId == 0) {
        ownThreadId = nextThreadId++;
    }
    return ownThreadId;
}

unsigned int currentProcessId() noexcept {
    return scriptedProcessId;
}

}  // namespace platform
}  // namespace ThreadUtilities
