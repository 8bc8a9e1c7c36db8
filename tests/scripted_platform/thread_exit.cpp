// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/thread_exit.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <utility>

#include "scripted_platform/thread_exit_script.h"

namespace ThreadUtilities {
namespace {

std::atomic<bool> isRefusing{false};

/// Of one thread; the library has few of them, and asking must not allocate.
struct Requests {
    std::array<void (*)() noexcept, 8> functions{};
    int count = 0;

    void run() {
        for (int i = std::exchange(count, 0); i > 0; --i) {
            functions[i - 1]();
        }
    }
};

constinit thread_local Requests requests;

/// Its value is set on every thread that asked. Made before all other keys, because the cross
/// compiler keeps `thread_local` variables in blocks that a key of its own releases, and the keys
/// of an ending thread are worked off there in the order in which they were made.
struct Key {
    Key() {
        pthread_key_create(&key, [](void*) { requests.run(); });
    }
    pthread_key_t key{};
};
__attribute__((init_priority(101))) const Key ending;

}  // namespace

namespace scripted {

void refuseThreadExitCalls(bool refuse) {
    isRefusing = refuse;
}

}  // namespace scripted

namespace platform {

ThreadExitCall::ThreadExitCall(void (*exitFunction)() noexcept) noexcept
    : function(exitFunction), systemKey(0) {}

bool ThreadExitCall::request() noexcept {
    if (isRefusing || pthread_setspecific(ending.key, &requests) != 0) {
        return false;
    }
    requests.functions.at(requests.count++) = function;
    return true;
}

}  // namespace platform
}  // namespace ThreadUtilities
