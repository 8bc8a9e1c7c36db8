#include "platform/thread_exit.h"

#include <array>

namespace ThreadUtilities::platform {
namespace {

/// What the calling thread asked for. Its destructor is the exit call: the compiler's
/// `thread_local` storage is gone at the loader's notice of a thread's end, and system slots end
/// before it.
struct Requests {
    std::array<void (*)() noexcept, 4> functions{};

    Requests() = default;
    ~Requests();

    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;
};

constinit thread_local bool hasEnded = false;

Requests::~Requests() {
    hasEnded = true;
    for (auto* function : functions) {
        if (function != nullptr) {
            function();
        }
    }
}

}  // namespace

ThreadExitCall::ThreadExitCall(void (*exitFunction)() noexcept) noexcept : function(exitFunction) {}

bool ThreadExitCall::request() noexcept {
    // The destructor runs once: what is asked for behind it would not be called.
    if (hasEnded) {
        return false;
    }
    thread_local Requests requests;
    for (auto*& place : requests.functions) {
        if (place == nullptr || place == function) {
            place = function;
            return true;
        }
    }
    return false;
}

}  // namespace ThreadUtilities::platform
