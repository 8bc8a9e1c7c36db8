#include "platform/current.h"

#include <unistd.h>

#include "platform/process_copy.h"

namespace ThreadUtilities::platform {
namespace {

thread_local unsigned int cachedThreadId = 0;

// The copy has one thread: the one that runs this.
RestartInCopy renewCachedThreadId([] { cachedThreadId = static_cast<unsigned int>(gettid()); });

}  // namespace

unsigned int currentThreadId() noexcept {
    if (cachedThreadId == 0) {
        cachedThreadId = static_cast<unsigned int>(gettid());
    }
    return cachedThreadId;
}

unsigned int currentProcessId() noexcept {
    return static_cast<unsigned int>(getpid());
}

}  // namespace ThreadUtilities::platform
