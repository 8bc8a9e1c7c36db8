#include "platform/thread_exit.h"

#include <pthread.h>
#include <windows.h>

#include <array>
#include <atomic>
#include <cstddef>

// The compiler keeps `thread_local` variables in blocks that hang on a key of its thread library
// (GCC's emulated TLS over winpthreads), and releases them when the keys of an ending thread are
// worked off: in the order in which the keys were made, over and over as long as a value was set
// meanwhile. An object with a destructor would be worked off behind them and find freed memory; so
// would everything at the loader's notice of the thread's end. A key made before theirs is worked
// off while the variables still stand.
//
// The DLL has a copy of the thread library in it, and so keys of its own, which are worked off at
// the notice; the keys of a program that starts a thread are worked off before, so that destructors
// there still find what the calls release. In either place the lock of the keys is held for reading
// during a call, therefore a call makes no key: it uses no variable that the library has not used
// before.

namespace ThreadUtilities::platform {
namespace {

using ExitFunction = void (*)() noexcept;

/// The exit calls there are; the key's value is a bit for each that the thread asked for.
constinit std::array<std::atomic<ExitFunction>, 16> functions{};
constinit std::atomic<std::size_t> functionCount = 0;

/// A value that is set in the last round is never released. Every call that was made stands for a
/// round that went by.
constexpr std::uintptr_t mostCalls = PTHREAD_DESTRUCTOR_ITERATIONS - 1;

void callRequested(void* requested) noexcept;

struct Keys {
    // The count of calls is in a slot of the system, because it outlasts the variables.
    Keys() noexcept
        : areMade(pthread_key_create(&requests, [](void* value) { callRequested(value); }) == 0),
          callsMade(TlsAlloc()) {}

    pthread_key_t requests = 0;
    bool areMade;
    DWORD callsMade;
};

// The first static object of all: before any that could touch a `thread_local` variable.
__attribute__((init_priority(101))) Keys keys;

std::uintptr_t callsMade() noexcept {
    return reinterpret_cast<std::uintptr_t>(TlsGetValue(keys.callsMade));
}

void callRequested(void* requested) noexcept {
    TlsSetValue(keys.callsMade, reinterpret_cast<void*>(callsMade() + 1));
    const auto bits = reinterpret_cast<std::uintptr_t>(requested);
    for (std::size_t index = 0; index < functions.size(); ++index) {
        if ((bits >> index & 1) != 0) {
            functions[index].load()();
        }
    }
}

}  // namespace

ThreadExitCall::ThreadExitCall(void (*exitFunction)() noexcept) noexcept : function(exitFunction) {
    const std::size_t index = functionCount++;
    if (index < functions.size()) {
        functions[index] = function;
        systemKey = static_cast<std::int64_t>(index);
    }
}

bool ThreadExitCall::request() noexcept {
    if (systemKey < 0 || !keys.areMade || keys.callsMade == TLS_OUT_OF_INDEXES ||
        callsMade() >= mostCalls) {
        return false;
    }
    const auto requested = reinterpret_cast<std::uintptr_t>(pthread_getspecific(keys.requests)) |
                           std::uintptr_t{1} << systemKey;
    return pthread_setspecific(keys.requests, reinterpret_cast<void*>(requested)) == 0;
}

}  // namespace ThreadUtilities::platform
