// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/current.h"

#include <unistd.h>

#include <atomic>
#include <cstdint>

#include "linux/fork_child.h"

namespace ThreadUtilities::platform {
namespace {

constinit thread_local unsigned int cachedThreadId = 0;
constinit thread_local std::uint32_t markAtCaching = 0;

unsigned int renewedThreadId() noexcept {
    noticeForkChild();
    const auto threadId = static_cast<unsigned int>(gettid());
    if (const std::uint32_t mark = processMark->load(std::memory_order_acquire); isReady(mark)) {
        cachedThreadId = threadId;
        markAtCaching = mark;
    }
    return threadId;
}

}  // namespace

// Every family asks this first, which is why an unannounced fork child is noticed here.
unsigned int currentThreadId() noexcept {
    if (processMark->load(std::memory_order_acquire) == markAtCaching) [[likely]] {
        return cachedThreadId;
    }
    return renewedThreadId();
}

unsigned int currentProcessId() noexcept {
    return static_cast<unsigned int>(getpid());
}

}  // namespace ThreadUtilities::platform
