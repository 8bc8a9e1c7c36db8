// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "external_input/thread_values.h"

#include <memory>

#include "platform/thread_exit.h"
#include "platform/thread_pointer.h"

namespace vesko::external_input {
namespace {

// The thread's own pointer can be read at any point of its end and says then truly whether the
// thread has values. Code that runs on the thread after they were released finds none, and may
// begin new ones as long as their release is promised.
thread_values* current_values() noexcept {
    return static_cast<thread_values*>(ThreadUtilities::platform::threadPointer());
}

void set_current_values(thread_values* values) noexcept {
    ThreadUtilities::platform::setThreadPointer(values);
}

void release_values() noexcept {
    // Without values first: the release of a store's block may run foreign code that asks.
    std::unique_ptr<thread_values> ending(current_values());
    set_current_values(nullptr);
}

// Made at load, before the static objects of a host that may set a hint. Not on first use: the
// guard of a static object in a function stays closed for ever in a fork child that is
// made meanwhile.
[[gnu::init_priority(101)]] ThreadUtilities::platform::ThreadExitCall releaseAtExit(release_values);

}  // namespace

thread_values* find_thread_values() noexcept {
    return current_values();
}

thread_values* obtain_thread_values() {
    thread_values* values = current_values();
    if (values == nullptr) {
        auto made = std::make_unique<thread_values>();
        if (releaseAtExit.request()) {
            values = made.release();
            set_current_values(values);
        }
    }
    return values;
}

}  // namespace vesko::external_input
