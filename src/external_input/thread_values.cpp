#include "external_input/thread_values.h"

#include "platform/thread_exit.h"

namespace vesko::external_input {
namespace {

// A plain pointer, because it has no destructor: it can be read at any point of a thread's end and
// says then truly whether the thread has values. Code that runs on the thread after they were
// released finds none, and may begin new ones as long as their release is promised.
constinit thread_local thread_values* values = nullptr;

void release_values() noexcept {
    // Without values first: the release of a store's block may run foreign code that asks.
    std::unique_ptr<thread_values> ending(values);
    values = nullptr;
}

// Made on first use: static objects of the host may set a hint before those of this file exist.
ThreadUtilities::platform::ThreadExitCall& release_at_exit() {
    static ThreadUtilities::platform::ThreadExitCall call(release_values);
    return call;
}

}  // namespace

thread_values* find_thread_values() noexcept {
    return values;
}

thread_values* obtain_thread_values() {
    if (values == nullptr) {
        auto made = std::make_unique<thread_values>();
        if (release_at_exit().request()) {
            values = made.release();
        }
    }
    return values;
}

}  // namespace vesko::external_input
