#include "platform/thread_exit.h"

#include <array>
#include <atomic>
#include <utility>

#include "scripted_platform/thread_exit_script.h"

namespace ThreadUtilities {
namespace {

std::atomic<bool> isRefusing{false};

/// Of one thread; the library has few of them, and asking must not allocate.
struct Requests {
    std::array<void (*)() noexcept, 8> functions;
    int count = 0;

    int run() {
        const std::array<void (*)() noexcept, 8> called = functions;
        const int calls = std::exchange(count, 0);
        for (int i = 0; i < calls; ++i) {
            called[i]();
        }
        return calls;
    }

    ~Requests() { run(); }
};

thread_local Requests requests;

}  // namespace

namespace scripted {

void refuseThreadExitCalls(bool refuse) {
    isRefusing = refuse;
}

int runThreadExitCalls() {
    return requests.run();
}

}  // namespace scripted

namespace platform {

ThreadExitCall::ThreadExitCall(void (*exitFunction)() noexcept) noexcept
    : function(exitFunction), systemKey(0) {}

bool ThreadExitCall::request() noexcept {
    if (isRefusing) {
        return false;
    }
    requests.functions.at(requests.count++) = function;
    return true;
}

}  // namespace platform
}  // namespace ThreadUtilities
