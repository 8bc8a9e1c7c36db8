// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "scripted_platform/process_script.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <utility>

#include "platform/current.h"
#include "platform/debugger.h"
#include "platform/fork_child.h"
#include "platform/thread_exit.h"

namespace ThreadUtilities::platform {
namespace {

std::atomic<unsigned int> nextThreadId{1000};
thread_local unsigned int ownThreadId = 0;

/// Of one thread; the library has few of them, and asking must not allocate.
struct ExitCalls {
    std::array<void (*)() noexcept, 8> functions{};
    int count = 0;

    void run() {
        for (int i = std::exchange(count, 0); i > 0; --i) {
            functions[i - 1]();
        }
    }
};

constinit thread_local ExitCalls exitCalls;

/// Its value is set on every thread that asked. Made before all other keys, because the cross
/// compiler keeps `thread_local` variables in blocks that a key of its own releases, and the keys
/// of an ending thread are worked off there in the order in which they were made.
struct Key {
    Key() {
        pthread_key_create(&key, [](void*) { exitCalls.run(); });
    }
    pthread_key_t key{};
};
__attribute__((init_priority(101))) const Key ending;

}  // namespace

unsigned int currentThreadId() noexcept {
    if (scripted::currentThreadId != 0) {
        return scripted::currentThreadId;
    }
    if (ownThreadId == 0) {
        ownThreadId = nextThreadId++;
    }
    return ownThreadId;
}

unsigned int currentProcessId() noexcept {
    return scripted::ownProcessId;
}

bool isDebuggerAttached() noexcept {
    return scripted::debuggerAttached;
}

// The scripted system has no fork.
RestartInForkChild::RestartInForkChild(void (*restartFunction)()) noexcept
    : restart(restartFunction) {}

ThreadExitCall::ThreadExitCall(void (*exitFunction)() noexcept) noexcept
    : function(exitFunction), systemKey(0) {}

bool ThreadExitCall::request() noexcept {
    if (scripted::threadExitCallsAreRefused || pthread_setspecific(ending.key, &exitCalls) != 0) {
        return false;
    }
    exitCalls.functions.at(exitCalls.count++) = function;
    return true;
}

}  // namespace ThreadUtilities::platform
