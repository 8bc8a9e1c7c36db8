// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/thread_exit.h"

#include <limits.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "linux/threads/thread_exit.h"

// The C library's list of `thread_local` destructors (Itanium C++ ABI, section 3.3.6.1).
extern "C" int __cxa_thread_atexit_impl(void (*function)(void*), void* argument, void* dsoSymbol);
extern "C" void* __dso_handle;

namespace ThreadUtilities::platform {
namespace {

// The system calls a thread's exit destructors in rounds, again for those values that a destructor
// has set anew, four rounds (PTHREAD_DESTRUCTOR_ITERATIONS); a value that is set in the last one is
// never released. One value of the library's, set anew in each round, counts them, so that
// everybody's last chance is known. Values of others end in the first round, and may still use what
// the calls release; therefore the calls are made from the second on.
//
// A thread that asks for its first call only in the middle of its end (nobody announced it, and
// it never used the library before) counts from there, and its calls are made at the first chance.
// What such a thread asks for in the system's last round is lost: nothing tells it the round.
constexpr int lastRound = PTHREAD_DESTRUCTOR_ITERATIONS;
constexpr int roundOfCalls = 2;

using ExitFunction = void (*)() noexcept;
constinit std::array<std::atomic<ExitFunction>, 16> functions{};
constinit std::atomic<std::size_t> functionCount{0};

struct OwnEnd {
    unsigned int requested = 0;  ///< a bit for each of the functions
    int roundsBegun = 0;
    bool countsFromTheFirst = false;
    bool isArmed = false;
};
constinit thread_local OwnEnd ownEnd;

constinit pthread_key_t key = 0;
constinit bool keyMade = false;

bool armNextRound() noexcept {
    return keyMade && pthread_setspecific(key, &keyMade) == 0;
}

// Cancellation is over for a thread that has come here: its forced unwinding would have to begin
// below frames of the C library that cannot be unwound.
void makeCalls() noexcept {
    int cancelState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    for (std::size_t index = 0; index < functions.size(); ++index) {
        // A call may ask for others; those behind it are made at once.
        if ((ownEnd.requested >> index & 1) != 0) {
            ownEnd.requested &= ~(1U << index);
            functions[index].load(std::memory_order_relaxed)();
        }
    }
    pthread_setcancelstate(cancelState, nullptr);
}

void beginRound(void*) {
    ++ownEnd.roundsBegun;
    ownEnd.isArmed = ownEnd.roundsBegun < lastRound && armNextRound();
    if (!ownEnd.countsFromTheFirst || ownEnd.roundsBegun >= roundOfCalls || !ownEnd.isArmed) {
        makeCalls();
    }
}

// The other list is worked off once, and before all rounds.
void endWithoutRounds(void*) {
    ownEnd.roundsBegun = lastRound;
    ownEnd.isArmed = false;
    makeCalls();
}

bool armOwnEnd() noexcept {
    if (!ownEnd.isArmed && ownEnd.roundsBegun < lastRound) {
        ownEnd.isArmed =
            armNextRound() || (ownEnd.roundsBegun == 0 &&
                               __cxa_thread_atexit_impl(endWithoutRounds, nullptr,
                                                        static_cast<void*>(&__dso_handle)) == 0);
    }
    return ownEnd.isArmed;
}

// As early as possible: a process may use up its keys.
__attribute__((constructor(101))) void makeKey() {
    keyMade = pthread_key_create(&key, beginRound) == 0;
}

}  // namespace

void countOwnExitRounds() noexcept {
    ownEnd.countsFromTheFirst = armOwnEnd();
}

// Thread-specific values and not a `thread_local` object, because the former are released after
// all of the latter, and because one that is set during the release gets a further round.
ThreadExitCall::ThreadExitCall(void (*exitFunction)() noexcept) noexcept : function(exitFunction) {
    const std::size_t index = functionCount++;
    if (index < functions.size()) {
        functions[index] = function;
        systemKey = static_cast<std::int64_t>(index);
    }
}

bool ThreadExitCall::request() noexcept {
    if (systemKey < 0 || !armOwnEnd()) {
        return false;
    }
    ownEnd.requested |= 1U << systemKey;
    return true;
}

}  // namespace ThreadUtilities::platform
