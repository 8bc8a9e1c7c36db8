// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/handler/saved_registers.h"
#include "platform/memory.h"

#include <pthread.h>

#include <algorithm>
#include <cstdint>

#include "linux/capture/stack_layout.h"
#include "linux/capture/thread_stacks.h"
#include "linux/kernel_calls.h"

namespace ThreadUtilities::platform {
namespace {

struct KnownBounds {
    bool known = false;
    ReadableRange bounds;
};

constinit thread_local KnownBounds ownBounds;

bool isFirstThread() {
    return kernelCall(SYS_gettid) == kernelProcessId();
}

// The C library would read the whole memory map for this.
ReadableRange firstThreadBounds() {
    const auto top = reinterpret_cast<std::uint64_t>(__libc_stack_end);
    return {top - firstStackReach, top};
}

// A thread whose start was not heard of. The C library puts its own record of a thread at the top
// of the thread's stack, whoever gave the memory. Its function for the bounds allocates, under a
// lock that is not recursive. The guess need not be right: pages are asked for, and what lies
// outside is copied.
ReadableRange boundsBelowThreadRecord() {
    const auto top = static_cast<std::uint64_t>(pthread_self());
    return {top - std::min(top, usualStackReach), top};
}

ReadableRange laterThreadBounds() {
    const ReadableRange entered = ownEnteredStack();
    return entered.end != 0 ? entered : boundsBelowThreadRecord();
}

}  // namespace

ReadableRange currentStackRange() noexcept {
    if (!ownBounds.known) {
        ownBounds.bounds = isFirstThread() ? firstThreadBounds() : laterThreadBounds();
        ownBounds.known = true;
    }
    const auto stackPointer = reinterpret_cast<std::uint64_t>(__builtin_frame_address(0));
    return readableStack(ownBounds.bounds, stackPointer);
}

}  // namespace ThreadUtilities::platform
