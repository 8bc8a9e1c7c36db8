// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/thread_pointer.h"

namespace ThreadUtilities::platform {
namespace {

// Without a destructor, therefore there as long as the thread is.
constinit thread_local void* pointerOfThread = nullptr;

}  // namespace

void* threadPointer() noexcept {
    return pointerOfThread;
}

void setThreadPointer(void* pointer) noexcept {
    pointerOfThread = pointer;
}

}  // namespace ThreadUtilities::platform
