// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/thread_names.h"

#include "platform/current.h"
#include "scripted_platform/thread_names_script.h"

namespace ThreadUtilities::platform {

using scripted::threadNames;

void setOwnThreadName(std::string_view name) {
    const std::lock_guard lock(threadNames.mutex);
    threadNames.byThread[currentThreadId()] = name;
    threadNames.given.emplace_back(name);
}

std::string readThreadName(unsigned int threadId) {
    const std::lock_guard lock(threadNames.mutex);
    const auto found = threadNames.byThread.find(threadId);
    return found == threadNames.byThread.end() ? std::string() : found->second;
}

}  // namespace ThreadUtilities::platform
