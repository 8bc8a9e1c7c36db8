#include "platform/process_copy.h"

#include <pthread.h>

namespace ThreadUtilities::platform {
namespace {

// Constant-initialised, so that registrations of any static constructor find it ready.
constinit RestartInCopy* first = nullptr;
constinit RestartInCopy** last = &first;

void restartAll() {
    for (RestartInCopy* entry = first; entry != nullptr; entry = entry->next) {
        entry->restart();
    }
}

}  // namespace

RestartInCopy::RestartInCopy(void (*restartFunction)()) noexcept : restart(restartFunction) {
    if (first == nullptr) {
        pthread_atfork(nullptr, nullptr, restartAll);
    }
    *last = this;
    last = &next;
}

}  // namespace ThreadUtilities::platform
