#include "platform/process_copy.h"

#include <pthread.h>

#include "platform/linux/copied_process.h"

namespace ThreadUtilities::platform {
namespace {

// Constant-initialised, so that registrations of any static constructor find it ready.
constinit RestartInCopy* first = nullptr;
constinit RestartInCopy** last = &first;
using Action = void (*)();
constinit Action actionAfterCopy = nullptr;

void restartAll() {
    for (RestartInCopy* entry = first; entry != nullptr; entry = entry->next) {
        entry->restart();
    }
    if (actionAfterCopy != nullptr) {
        actionAfterCopy();
    }
}

// Handlers in the copy run in the order of their registration; those of other libraries may call
// this one, therefore as early as possible: before the static constructors of the same file set.
__attribute__((constructor(101))) void hearOfCopies() {
    pthread_atfork(nullptr, nullptr, restartAll);
}

}  // namespace

RestartInCopy::RestartInCopy(void (*restartFunction)()) noexcept : restart(restartFunction) {
    *last = this;
    last = &next;
}

void setActionAfterCopy(void (*action)()) noexcept {
    actionAfterCopy = action;
}

}  // namespace ThreadUtilities::platform
