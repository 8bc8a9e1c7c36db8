// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "windows/thread_exit.h"

#include <windows.h>

#include <array>
#include <atomic>
#include <cstddef>

#include "platform/thread_exit.h"
#include "platform/thread_pointer.h"
#include "windows/entry.h"

// Everything here is in slots of the system, which can be read and written as long as the thread
// runs. The compiler's `thread_local` variables cannot: GCC keeps them in blocks that hang on a key
// of its thread library, and the keys of a thread that the library started are worked off before
// the loader's notice of its end. There a variable would read as never set, and its new block be
// lost.
//
// The keys of other threads are worked off at the notice, which modules get in the reverse order of
// their loading. Destructors of `thread_local` objects may so run behind the calls that are made
// here. Nothing would release what they begin, therefore they get the answer that they are too
// late.

namespace ThreadUtilities::platform {
namespace {

using ExitFunction = void (*)() noexcept;

/// The exit calls there are; a thread's requests are a bit for each that it asked for.
constinit std::array<std::atomic<ExitFunction>, 16> functions{};
constinit std::atomic<std::size_t> functionCount = 0;
constexpr std::uintptr_t callsWereMade = std::uintptr_t{1} << functions.size();

struct Slots {
    Slots() noexcept : requests(TlsAlloc()), pointer(TlsAlloc()) {}
    bool areThere() const noexcept {
        return requests != TLS_OUT_OF_INDEXES && pointer != TLS_OUT_OF_INDEXES;
    }

    DWORD requests;
    DWORD pointer;
};

// Before the static objects of a program that contains the library; never given back, because the
// library stays loaded.
[[gnu::init_priority(101)]] const Slots slots;

std::uintptr_t requestsOfThread() noexcept {
    return reinterpret_cast<std::uintptr_t>(TlsGetValue(slots.requests));
}

bool setRequestsOfThread(std::uintptr_t requests) noexcept {
    return TlsSetValue(slots.requests, reinterpret_cast<void*>(requests)) != 0;
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
    if (systemKey < 0 || !slots.areThere() || !noticesArrive()) {
        return false;
    }
    const std::uintptr_t requests = requestsOfThread();
    return (requests & callsWereMade) == 0 &&
           setRequestsOfThread(requests | std::uintptr_t{1} << systemKey);
}

// The mark is set first: a function may run foreign code that asks again.
void callAtThreadExit() noexcept {
    if (!slots.areThere()) {
        return;
    }
    const std::uintptr_t requests = requestsOfThread();
    setRequestsOfThread(callsWereMade);
    for (std::size_t index = 0; index < functions.size(); ++index) {
        if ((requests >> index & 1) != 0) {
            functions[index].load()();
        }
    }
}

// The system's success at reading a slot takes the place of the caller's last error.
void* threadPointer() noexcept {
    const DWORD lastError = GetLastError();
    void* const pointer = TlsGetValue(slots.pointer);
    SetLastError(lastError);
    return pointer;
}

void setThreadPointer(void* pointer) noexcept {
    TlsSetValue(slots.pointer, pointer);
}

}  // namespace ThreadUtilities::platform
