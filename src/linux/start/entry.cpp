// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/start/entry.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "linux/capture/thread_stacks.h"
#include "linux/fork_child.h"
#include "linux/threads/thread_exit.h"
#include "linux/threads/thread_names.h"
#include "linux/threads/threads.h"
#include "platform/notices.h"
#include "platform/thread_exit.h"

namespace ThreadUtilities::platform {
namespace {

constinit std::atomic<bool> loaded{false};

[[gnu::init_priority(101)]] ThreadExitCall forgetStack(forgetOwnStack);

// A notice fails when there is no memory for the thread list; a thread that is missing in it is
// found when the list is read.
void tellOfProcess() noexcept {
    try {
        onProcessAttach();
    } catch (const std::bad_alloc&) {
    }
}

void attachProcess() noexcept {
    if (ownRecord() == nullptr) {
        if (auto* const record = new (std::nothrow) ThreadRecord) {
            nameAfterProgram(*record);
            enterOwnRecord(record, false);
        }
    }
    tellOfProcess();
    relyOnNotices();
}

// After the constructors 101 of this backend, before the static objects of the program.
__attribute__((constructor(102))) void load() {
    setThreadNotices({onThreadAttach, onThreadDetach});
    setActionInForkChild([] { attachProcess(); });
    rememberFirstThreadStack();
    countOwnExitRounds();
    forgetStack.request();
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

// The creator may have cancelled the thread already. Its forced unwinding must not begin here (an
// allocator of the host's may well write to a file), where nobody could let it pass.
void beginThread(ThreadRecord* record) noexcept {
    int cancelState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    countOwnExitRounds();
    if (forgetStack.request()) {
        rememberOwnStack();
    }
    enterOwnRecord(record, true);
    pthread_setcancelstate(cancelState, nullptr);
}

}  // namespace ThreadUtilities::platform
