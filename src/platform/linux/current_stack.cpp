#include "platform/linux/handler/saved_registers.h"
#include "platform/thread_context.h"

#include <pthread.h>
#include <unistd.h>

#include "platform/linux/kernel_calls.h"
#include "platform/linux/stack_layout.h"

namespace ThreadUtilities::platform {
namespace {

struct KnownBounds {
    bool known = false;
    ReadableRange bounds;
};

thread_local KnownBounds ownBounds;

bool isFirstThread() {
    return kernelCall(SYS_gettid) == kernelProcessId();
}

// The C library would read the whole memory map for this.
ReadableRange firstThreadBounds() {
    const auto top = reinterpret_cast<std::uint64_t>(__libc_stack_end);
    return {top - firstStackReach, top};
}

ReadableRange otherThreadBounds() {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) {
        return {};
    }
    void* lowest = nullptr;
    std::size_t size = 0;
    const bool got = pthread_attr_getstack(&attributes, &lowest, &size) == 0;
    pthread_attr_destroy(&attributes);
    const auto begin = reinterpret_cast<std::uint64_t>(lowest);
    return got ? ReadableRange{begin, begin + size} : ReadableRange{};
}

}  // namespace

ReadableRange currentStackRange() noexcept {
    if (!ownBounds.known) {
        ownBounds.bounds = isFirstThread() ? firstThreadBounds() : otherThreadBounds();
        ownBounds.known = true;
    }
    const auto stackPointer = reinterpret_cast<std::uint64_t>(__builtin_frame_address(0));
    return readableStack(ownBounds.bounds, stackPointer);
}

}  // namespace ThreadUtilities::platform
