// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/fork_child.h"

#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "linux/fork_child.h"

namespace ThreadUtilities::platform {
namespace {

// Constant-initialised, so that registrations of any static constructor find it ready.
constinit RestartInForkChild* first = nullptr;
constinit RestartInForkChild** last = &first;
using Action = void (*)();
constinit Action actionInForkChild = nullptr;

constinit std::uint32_t readyMark = 1;

// The mark before the page for it stands, and where the kernel does not offer to wipe one.
constinit std::atomic<std::uint32_t> plainMark{1};

void restartAll() noexcept {
    for (RestartInForkChild* entry = first; entry != nullptr; entry = entry->next) {
        entry->restart();
    }
    readyMark += 2;
    processMark->store(readyMark, std::memory_order_release);
}

void restartInForkChild() {
    if (processMark == &plainMark) {
        plainMark = static_cast<std::uint32_t>(gettid()) << 1;
        restartAll();
    } else {
        noticeForkChild();  // unless a fork handler that ran before this one has asked for
                            // something
    }
    if (actionInForkChild != nullptr) {
        actionInForkChild();
    }
}

// Handlers in the child run in the order of their registration; those of other libraries may call
// this one, therefore as early as possible: before the static constructors of the same file set.
__attribute__((constructor(101))) void installForkHandler() {
    const std::size_t size = sizeof(*processMark);  // a page, in fact
    void* const page =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page != MAP_FAILED && madvise(page, size, MADV_WIPEONFORK) == 0) {
        auto* const mark = static_cast<std::atomic<std::uint32_t>*>(page);
        mark->store(1, std::memory_order_relaxed);
        processMark = mark;
    }
    pthread_atfork(nullptr, nullptr, restartInForkChild);
}

}  // namespace

constinit std::atomic<std::uint32_t>* processMark = &plainMark;

// One thread restarts, under a mark of its own (its id twice, hence even); the others, of a child
// that started threads before it asked for anything, wait for it. What asks on that thread
// meanwhile, a restart function or a signal handler, does not: it would wait for itself.
void restartInUnannouncedChild() noexcept {
    const auto self = static_cast<std::uint32_t>(gettid()) << 1;
    std::uint32_t mark = 0;
    if (processMark->compare_exchange_strong(mark, self, std::memory_order_acq_rel)) {
        restartAll();
        return;
    }
    while (!isReady(mark) && mark != self) {
        sched_yield();
        mark = processMark->load(std::memory_order_acquire);
    }
}

RestartInForkChild::RestartInForkChild(void (*restartFunction)()) noexcept
    : restart(restartFunction) {
    *last = this;
    last = &next;
}

void setActionInForkChild(void (*action)()) noexcept {
    actionInForkChild = action;
}

}  // namespace ThreadUtilities::platform
