// The start of a thread, heard of by standing before the C library's functions of the same names
// in the order in which the dynamic linker looks names up. Where the library stands behind the C
// library (loaded late, or needed by another library only), nobody calls these; the thread list
// then does without.

#include <dlfcn.h>
#include <pthread.h>
#include <threads.h>

#include <atomic>
#include <cerrno>
#include <new>

#include "platform/linux/entry.h"

// This library's own definitions, whichever ones those names lead to.
extern "C" {
__attribute__((visibility("hidden"), alias("pthread_create"), nonnull(1, 3))) int ownPthreadCreate(
    pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) noexcept;
__attribute__((visibility("hidden"), alias("thrd_create"))) int ownThrdCreate(thrd_t*, thrd_start_t,
                                                                              void*);
}

namespace ThreadUtilities::platform {
namespace {

// What a new thread needs to begin; it frees it before its own code runs.
template <class Function>
struct Start {
    Function function;
    void* argument;
    KernelName inherited;
};

// Nothing here catches what leaves the thread's function: an exception that nobody handles must
// find no handler, so that the program ends with the stack that threw it, and the forced
// unwinding of `pthread_exit` and cancellation must pass.
template <class Function>
auto runThread(void* startPointer) {
    auto* const start = static_cast<Start<Function>*>(startPointer);
    const Start<Function> copy = *start;
    delete start;
    beginThread(copy.inherited);
    return copy.function(copy.argument);
}

template <class Function>
Start<Function>* makeStart(Function function, void* argument) noexcept {
    // The name is taken before the thread exists: right after that anybody may rename it.
    return new (std::nothrow) Start<Function>{function, argument, ownKernelName()};
}

// The function that would have been called without this library. It may be asked for before any
// constructor has run, and by several threads at once, all of which find the same.
template <class Function>
class NextFunction {
 public:
    constexpr NextFunction(const char* functionName, Function self) noexcept
        : name(functionName), own(self) {}

    Function get() noexcept {
        Function function = found.load(std::memory_order_acquire);
        if (function == nullptr) {
            function = look();
            found.store(function, std::memory_order_release);
        }
        return function;
    }

 private:
    Function look() const noexcept {
        if (const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name))) {
            return next;
        }
        // Nothing stands behind this library, so the C library stands before it.
        const auto first = reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, name));
        return first == own ? nullptr : first;
    }

    const char* name;
    Function own;
    std::atomic<Function> found{nullptr};
};

// ThreadSanitizer gives a new thread its state in a function of its own, which it starts the thread
// with. Where it stands first, this library would run its part before that, without a state.
bool mustStayOutside() noexcept {
    return dlsym(RTLD_DEFAULT, "__tsan_init") != nullptr &&
           dlsym(RTLD_DEFAULT, "pthread_create") != reinterpret_cast<void*>(&ownPthreadCreate);
}

constinit std::atomic<bool> staysOutside{true};

using ThreadFunction = void* (*)(void*);
using CreateFunction = int (*)(pthread_t*, const pthread_attr_t*, ThreadFunction, void*);
using CThreadCreateFunction = int (*)(thrd_t*, thrd_start_t, void*);

constinit NextFunction<CreateFunction> nextPthreadCreate("pthread_create", &ownPthreadCreate);
constinit NextFunction<CThreadCreateFunction> nextThrdCreate("thrd_create", &ownThrdCreate);

}  // namespace

void prepareStartHooks() noexcept {
    nextPthreadCreate.get();
    nextThrdCreate.get();
    staysOutside = mustStayOutside();
}

}  // namespace ThreadUtilities::platform

using namespace ThreadUtilities::platform;

extern "C" {

__attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                          const pthread_attr_t* attributes,
                                                          void* (*function)(void*),
                                                          void* argument) noexcept {
    const auto next = nextPthreadCreate.get();
    if (next == nullptr) {
        return EAGAIN;
    }
    if (staysOutside || !isLoaded()) {
        return next(thread, attributes, function, argument);
    }
    auto* const start = makeStart(function, argument);
    if (start == nullptr) {
        return EAGAIN;
    }
    const int error = next(thread, attributes, runThread<ThreadFunction>, start);
    if (error != 0) {
        delete start;
    }
    return error;
}

__attribute__((visibility("default"))) int thrd_create(thrd_t* thread, thrd_start_t function,
                                                       void* argument) {
    const auto next = nextThrdCreate.get();
    if (next == nullptr) {
        return thrd_error;
    }
    if (staysOutside || !isLoaded()) {
        return next(thread, function, argument);
    }
    auto* const start = makeStart(function, argument);
    if (start == nullptr) {
        return thrd_nomem;
    }
    const int error = next(thread, runThread<thrd_start_t>, start);
    if (error != thrd_success) {
        delete start;
    }
    return error;
}

}  // extern "C"
