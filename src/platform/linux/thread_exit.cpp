#include "platform/thread_exit.h"

#include <limits.h>
#include <pthread.h>

// The C library's list of `thread_local` destructors (Itanium C++ ABI, section 3.3.6.1).
extern "C" int __cxa_thread_atexit_impl(void (*function)(void*), void* argument, void* dsoSymbol);
extern "C" void* __dso_handle;

namespace ThreadUtilities::platform {
namespace {

// The system repeats its rounds over thread-specific values this often at most; a value that is
// set in the last one is never released. Every call that was made stands for a round that went
// by, therefore code that asks anew in each round is refused before that one.
constexpr int mostCalls = PTHREAD_DESTRUCTOR_ITERATIONS - 1;
constinit thread_local int callsMade = 0;

// The value of the key is the function itself: it only has to be something other than null.
void call(void* function) {
    ++callsMade;
    reinterpret_cast<void (*)() noexcept>(function)();
}

}  // namespace

// A thread-specific value and not a `thread_local` object, because the former are released after
// all of the latter, and because one that is set during the release gets a further round.
ThreadExitCall::ThreadExitCall(void (*exitFunction)() noexcept) noexcept : function(exitFunction) {
    pthread_key_t key = 0;
    if (pthread_key_create(&key, call) == 0) {
        systemKey = key;
    }
}

bool ThreadExitCall::request() noexcept {
    void* value = reinterpret_cast<void*>(function);
    if (systemKey >= 0) {
        return callsMade < mostCalls &&
               pthread_setspecific(static_cast<pthread_key_t>(systemKey), value) == 0;
    }
    // The process had used up its keys. The other list is worked off once.
    return callsMade == 0 && __cxa_thread_atexit_impl(call, value, &__dso_handle) == 0;
}

}  // namespace ThreadUtilities::platform
