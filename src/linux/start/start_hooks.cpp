// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// The start of a thread, noticed by standing before the C library's functions of the same names
// in the order in which the dynamic linker looks names up. Where the library stands behind the C
// library (loaded late, or needed by another library only), nobody calls these; the thread list
// then does without.
//
// In a program without a dynamic linker these take the place of the C library's functions, which
// are weak in its archive, and call them by their second names.

#include <dlfcn.h>
#include <mqueue.h>
#include <pthread.h>
#include <threads.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <new>

#include "linux/fork_child.h"
#include "linux/start/entry.h"

// This library's own definitions, whichever ones those names lead to.
extern "C" {
__attribute__((visibility("hidden"), alias("pthread_create"), nonnull(1, 3))) int ownPthreadCreate(
    pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) noexcept;
__attribute__((visibility("hidden"), alias("thrd_create"))) int ownThrdCreate(thrd_t*, thrd_start_t,
                                                                              void*);

// The second name of the C library's `pthread_create`, in its archive only.
__attribute__((weak)) int __pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*),
                                           void*) noexcept;
}

#if defined(THREAD_UTILITIES_STATIC)
// In a program that has such a function already, its own or a sanitizer's, that one stays.
extern "C" {
__attribute__((weak)) decltype(pthread_create) pthread_create;
__attribute__((weak)) decltype(thrd_create) thrd_create;
}

namespace {

// A weak reference takes no member out of an archive. This function calls `__pthread_create` too,
// and has a name that can be referred to whether the C library is an archive or not.
[[gnu::used]] const auto bringsThreadStart = &mq_notify;

}  // namespace
#endif

namespace ThreadUtilities::platform {
namespace {

// Nothing here catches what leaves the thread's function: an exception that nobody handles must
// find no handler, so that the program ends with the stack that threw it, and the forced
// unwinding of `pthread_exit` and cancellation must pass.
template <class Function>
auto runThread(void* recordPointer) {
    auto* const record = static_cast<ThreadRecord*>(recordPointer);
    const auto function = reinterpret_cast<Function>(record->function);
    void* const argument = record->argument;
    beginThread(record);
    return function(argument);
}

template <class Function>
ThreadRecord* makeRecord(Function function, void* argument) noexcept {
    auto* const record = new (std::nothrow) ThreadRecord;
    if (record != nullptr) {
        record->function = reinterpret_cast<void (*)()>(function);
        record->argument = argument;
        // The name is taken before the thread exists: right after that anybody may rename it.
        record->unnamed = record->current.inKernel = ownKernelName();
    }
    return record;
}

// The function that would have been called without this library. It may be asked for before any
// constructor has run, and by several threads at once, all of which find the same.
template <class Function>
class NextFunction {
 public:
    constexpr NextFunction(const char* functionName, Function self, Function second) noexcept
        : name(functionName), own(self), inArchive(second) {}

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
        // Nothing stands behind this library, so the C library stands before it, or in it.
        const auto first = reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, name));
        return first == own || first == nullptr ? inArchive : first;
    }

    const char* name;
    Function own;
    Function inArchive;
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

// A thread of the C standard as a POSIX thread: its result is joined as the pointer's lowest bits.
struct CThreadStart {
    thrd_start_t function;
    void* argument;
};

void* runCThread(void* startPointer) {
    auto* const start = static_cast<CThreadStart*>(startPointer);
    const CThreadStart copy = *start;
    delete start;
    return reinterpret_cast<void*>(static_cast<std::intptr_t>(copy.function(copy.argument)));
}

int createCThread(thrd_t* thread, thrd_start_t function, void* argument) {
    if (&__pthread_create == nullptr) {
        return thrd_error;
    }
    auto* const start = new (std::nothrow) CThreadStart{function, argument};
    if (start == nullptr) {
        return thrd_nomem;
    }
    const int error = __pthread_create(thread, nullptr, runCThread, start);
    if (error != 0) {
        delete start;
    }
    return error == 0 ? thrd_success : error == ENOMEM ? thrd_nomem : thrd_error;
}

constinit NextFunction<CreateFunction> nextPthreadCreate("pthread_create", &ownPthreadCreate,
                                                         &__pthread_create);
constinit NextFunction<CThreadCreateFunction> nextThrdCreate("thrd_create", &ownThrdCreate,
                                                             &createCThread);

// Before the threads are announced (entry.cpp), so that later starts find the C library's functions
// without a look-up.
__attribute__((constructor(101))) void prepareStartHooks() noexcept {
    nextPthreadCreate.get();
    nextThrdCreate.get();
    staysOutside = mustStayOutside();
}

}  // namespace

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
    noticeForkChild();
    ThreadRecord* const record = makeRecord(function, argument);
    if (record == nullptr) {
        return EAGAIN;
    }
    const int error = next(thread, attributes, runThread<ThreadFunction>, record);
    if (error != 0) {
        delete record;
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
    noticeForkChild();
    ThreadRecord* const record = makeRecord(function, argument);
    if (record == nullptr) {
        return thrd_nomem;
    }
    const int error = next(thread, runThread<thrd_start_t>, record);
    if (error != thrd_success) {
        delete record;
    }
    return error;
}

}  // extern "C"
