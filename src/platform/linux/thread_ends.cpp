#include "platform/linux/thread_ends.h"

#include <pthread.h>
#include <atomic>

#include "platform/current.h"
#include "platform/linux/own_name.h"
#include "platform/linux/thread_stacks.h"
#include "platform/process_copy.h"

namespace ThreadUtilities::platform {
namespace {

// The system calls a thread's exit destructors in rounds, again for those values that a
// destructor has set anew, at least four rounds (PTHREAD_DESTRUCTOR_ITERATIONS). Values of other
// libraries end in the first round and may still use this one, therefore the end counts in the
// second; a name that is given after that enters the two rounds once more and still ends in time.
enum class Round { First, Second };
constinit Round firstRound = Round::First;
constinit Round secondRound = Round::Second;

constinit pthread_key_t key = 0;
constinit bool keyMade = false;
using EndNotice = void (*)() noexcept;
constinit EndNotice endNotice = nullptr;
constinit std::atomic<bool> firstThreadEnded{false};

void endOfThread(void* value) {
    if (value == &firstRound && pthread_setspecific(key, &secondRound) == 0) {
        return;
    }
    if (currentThreadId() == currentProcessId()) {
        firstThreadEnded = true;
    }
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
    return keyMade && pthread_setspecific(key, &firstRound) == 0;
}

void setEndNotice(void (*notice)() noexcept) noexcept {
    endNotice = notice;
}

bool firstThreadHasEnded() noexcept {
    return firstThreadEnded;
}

}  // namespace ThreadUtilities::platform
