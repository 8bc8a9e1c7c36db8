#include "platform/linux/thread_ends.h"

#include <limits.h>
#include <pthread.h>
#include <atomic>

#include "platform/current.h"
#include "platform/linux/own_name.h"
#include "platform/linux/thread_stacks.h"
#include "platform/process_copy.h"

namespace ThreadUtilities::platform {
namespace {

// The system calls a thread's exit destructors in rounds, again for those values that a
// destructor has set anew, four rounds (PTHREAD_DESTRUCTOR_ITERATIONS). Values of other libraries
// end in the first round and may still use this one, therefore the end counts in the second. What
// is kept for the thread after that ends in the next round; in the last one nothing is kept.
enum class Round { First, Second };
constinit Round firstRound = Round::First;
constinit Round secondRound = Round::Second;

// Of the calling thread's end.
constinit thread_local int roundsBegun = 0;
constinit thread_local bool hasEnded = false;

constinit pthread_key_t key = 0;
constinit bool keyMade = false;
using EndNotice = void (*)() noexcept;
constinit EndNotice endNotice = nullptr;
constinit std::atomic<bool> firstThreadEnded{false};

void endOfThread(void* value) {
    ++roundsBegun;
    if (value == &firstRound && pthread_setspecific(key, &secondRound) == 0) {
        return;
    }
    if (currentThreadId() == currentProcessId()) {
        firstThreadEnded = true;
    }
    hasEnded = true;
    if (endNotice != nullptr) {
        endNotice();
    }
    forgetOwnName();
    forgetOwnStack();
}

__attribute__((constructor(101))) void makeKey() {
    keyMade = pthread_key_create(&key, endOfThread) == 0;
}

RestartInCopy copyHasItsFirstThread([] { firstThreadEnded = false; });

}  // namespace

bool hearOfOwnEnd() noexcept {
    return keyMade && roundsBegun < PTHREAD_DESTRUCTOR_ITERATIONS &&
           pthread_setspecific(key, hasEnded ? &secondRound : &firstRound) == 0;
}

void setEndNotice(void (*notice)() noexcept) noexcept {
    endNotice = notice;
}

bool firstThreadHasEnded() noexcept {
    return firstThreadEnded;
}

}  // namespace ThreadUtilities::platform
