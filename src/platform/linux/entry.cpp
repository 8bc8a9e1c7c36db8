#include "platform/linux/entry.h"

#include <unistd.h>

#include <atomic>

#include "platform/linux/copied_process.h"
#include "platform/linux/list_coverage.h"
#include "platform/linux/thread_ends.h"
#include "platform/linux/thread_stacks.h"
#include "platform/notices.h"

namespace ThreadUtilities::platform {
namespace {

constinit std::atomic<bool> loaded{false};

// A notice fails when there is no memory for the thread list; a thread that is missing in it is
// found when the list is read.
template <class Notice>
void tell(Notice notice) noexcept {
    try {
        notice();
    } catch (...) {
    }
}

void attachProcess() noexcept {
    tell(onProcessAttach);
    if (hearOfOwnEnd()) {
        relyOnNotices();
    }
}

// After the constructors 101 of this backend, before the static objects of the program.
__attribute__((constructor(102))) void load() {
    prepareStartHooks();
    setEndNotice([]() noexcept { tell(onThreadDetach); });
    setActionAfterCopy([] { attachProcess(); });
    rememberFirstThreadStack();
    if (gettid() != getpid()) {
        rememberOwnStack();
    }
    attachProcess();
    loaded = true;
}

}  // namespace

bool isLoaded() noexcept {
    return loaded.load(std::memory_order_acquire);
}

// The exit destructors of a thread run in the order of their keys and rounds; what is registered
// here is meant to be the last of them, see thread_ends.cpp.
void beginThread(const KernelName& inherited) noexcept {
    if (!hearOfOwnEnd()) {
        return;
    }
    rememberOwnStack();
    noteInheritedName(inherited);
    tell(onThreadAttach);
}

}  // namespace ThreadUtilities::platform
