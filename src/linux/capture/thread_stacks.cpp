// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/thread_stacks.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "linux/capture/handler/saved_registers.h"
#include "linux/kernel_calls.h"
#include "linux/proc_file.h"
#include "platform/current.h"
#include "platform/fork_child.h"
#include "platform/thread_stacks.h"

// The stack pointer at the program's entry, kept by the dynamic linker.
extern "C" void* __libc_stack_end;  // NOLINT

namespace ThreadUtilities::platform {
namespace {

/// How far down from its top the first thread's stack may be thought to reach. No other mapping
/// lies there: the kernel keeps at least 128 MB below the top free for the stack's growth, however
/// small its limit.
constexpr std::uint64_t firstStackReach = 64 << 20;

/// How far down from its top the stack of a later thread is thought to reach whose start went
/// unnoticed: as far as stacks do unless a program asks for larger ones.
constexpr std::uint64_t usualStackReach = 8 << 20;

std::uint64_t firstStackTop() noexcept {
    return reinterpret_cast<std::uint64_t>(__libc_stack_end);
}

// A range in one word, so that a reader can never see half of one: 44 bits of page number and 20
// bits of page count. 0 is "no range".
constexpr unsigned countBits = 20;
constexpr std::uint64_t mostPages = (std::uint64_t{1} << countBits) - 1;

// Whole pages outward: protection is per page, so a page that holds one byte of a live stack can
// be read from end to end. Of a stack above 4 GiB the outer part, which is used first, is kept.
std::uint64_t pack(std::uint64_t begin, std::uint64_t end) noexcept {
    const std::uint64_t endPage = pageEndOf(end) / memoryPageSize;
    const std::uint64_t beginPage =
        std::max(begin / memoryPageSize, endPage - std::min(endPage, mostPages));
    return endPage <= beginPage ? 0 : (beginPage << countBits) | (endPage - beginPage);
}

ReadableRange unpack(std::uint64_t word) noexcept {
    const std::uint64_t begin = (word >> countBits) * memoryPageSize;
    return {begin, begin + (word & mostPages) * memoryPageSize};
}

struct Slot {
    std::atomic<unsigned int> threadId;
    std::atomic<std::uint64_t> range;
};

// A thread may stand in any slot of its own group or the next one. Ids are handed out in
// sequence, so their low bits spread threads evenly; where a window is full, or the process has
// more threads than slots, the thread is simply not known. That is why nothing here ever grows.
constexpr std::size_t groupSize = 4;
constexpr std::size_t groupCount = 2048;
constexpr std::size_t windowSize = 2 * groupSize;
constinit std::array<Slot, groupSize * groupCount> slots{};

// Not an id that the system gives out (the highest is 2^22).
constexpr unsigned int claimed = ~0U;

// What the calling thread entered; a fork child has no other way to tell where its only
// thread stood, because that thread's id is another one there.
constinit thread_local std::uint64_t ownRange = 0;

Slot& slotOf(unsigned int threadId, std::size_t probe) noexcept {
    return slots[(threadId % groupCount * groupSize + probe) % slots.size()];
}

void leave(unsigned int threadId) noexcept {
    for (std::size_t probe = 0; probe < windowSize; ++probe) {
        Slot& slot = slotOf(threadId, probe);
        if (slot.threadId.load(std::memory_order_relaxed) == threadId) {
            slot.threadId.store(0, std::memory_order_release);
        }
    }
}

// The writers of a slot take turns: whoever moves `threadId` from 0 to claimed owns it until the
// same thread puts 0 back.
void enter(unsigned int threadId, std::uint64_t range) noexcept {
    // The id stands there already where its former bearer ended unnoticed.
    leave(threadId);
    for (std::size_t probe = 0; probe < windowSize; ++probe) {
        Slot& slot = slotOf(threadId, probe);
        unsigned int free = 0;
        if (slot.threadId.compare_exchange_strong(free, claimed, std::memory_order_acq_rel)) {
            slot.range.store(range, std::memory_order_release);
            slot.threadId.store(threadId, std::memory_order_release);
            return;
        }
    }
}

RestartInForkChild keepOnlyTheCaller([] {
    for (Slot& slot : slots) {
        if (slot.threadId.load(std::memory_order_relaxed) != 0) {
            slot.threadId.store(0, std::memory_order_relaxed);
        }
    }
    if (ownRange != 0) {
        enter(static_cast<unsigned int>(gettid()), ownRange);
    }
});

// The C library works the first thread's stack out from its size limit, which says what it may
// become; readable is what the process map shows.
std::uint64_t mappedFirstStack() noexcept {
    KernelFile map("/proc/self/maps");
    LineReader lines(map);
    for (std::string_view line; map.isOpen() && lines.next(line);) {
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
        if (line.ends_with(" [stack]") && parseField(line, "", 16, begin) &&
            parseField(line.substr(line.find('-')), "-", 16, end)) {
            return pack(begin, end);
        }
    }
    return 0;
}

std::uint64_t ownStackFromThreadLibrary() noexcept {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) {
        return 0;
    }
    void* lowest = nullptr;
    std::size_t size = 0;
    const int error = pthread_attr_getstack(&attributes, &lowest, &size);
    pthread_attr_destroy(&attributes);
    const auto begin = reinterpret_cast<std::uint64_t>(lowest);
    return error == 0 ? pack(begin, begin + size) : 0;
}

std::uint64_t stackLimit() noexcept {
    rlimit64 limit{};
    return kernelCall(SYS_prlimit64, 0, RLIMIT_STACK, 0, argument(&limit)) == 0 ? limit.rlim_cur
                                                                                : 0;
}

// A thread whose start went unnoticed. The C library puts its own record of a thread at the top
// of the thread's stack, whoever gave the memory. Its function for the bounds allocates, under a
// lock that is not recursive. The guess need not be right: pages are asked for, and what lies
// outside is copied.
ReadableRange boundsBelowThreadRecord() noexcept {
    const auto top = static_cast<std::uint64_t>(pthread_self());
    return {top - std::min(top, usualStackReach), top};
}

// The C library would read the whole memory map for the first thread.
ReadableRange findOwnBounds() noexcept {
    if (kernelCall(SYS_gettid) == kernelProcessId()) {
        return {firstStackTop() - firstStackReach, firstStackTop()};
    }
    return ownRange != 0 ? unpack(ownRange) : boundsBelowThreadRecord();
}

struct KnownBounds {
    bool known = false;
    ReadableRange bounds;
};
constinit thread_local KnownBounds ownBounds;

}  // namespace

// Why an answer is whole and belongs to the thread: while the thread lives, nobody but itself
// changes its slot, therefore both looks at `threadId` see it and `range` is what it stored. A
// slot that another thread has taken in between shows another id at the second look: its `range`
// was stored after claimed, so whoever reads that `range` reads claimed or a later id.
bool findThreadStack(unsigned int threadId, ReadableRange& out) noexcept {
    if (threadId == 0 || threadId == claimed) {
        return false;
    }
    for (std::size_t probe = 0; probe < windowSize; ++probe) {
        const Slot& slot = slotOf(threadId, probe);
        if (slot.threadId.load(std::memory_order_acquire) != threadId) {
            continue;
        }
        const std::uint64_t range = slot.range.load(std::memory_order_acquire);
        if (slot.threadId.load(std::memory_order_relaxed) == threadId && range != 0) {
            out = unpack(range);
            return true;
        }
    }
    return false;
}

// The first thread's stack grows by what is touched, in one piece and up to its limit. No page of
// it is read before the system was asked for it, but those that the kernel has just written. A
// handler that finds more room above the bounds' begin than it needs does not make it grow past its
// limit.
ReadableRange threadStackBounds(unsigned int threadId) noexcept {
    ReadableRange bounds;
    if (!findThreadStack(threadId, bounds)) {
        return {};
    }
    if (bounds.begin <= firstStackTop() && firstStackTop() < bounds.end) {
        bounds.begin = std::min(bounds.begin, bounds.end - std::min(firstStackReach, stackLimit()));
    }
    return bounds;
}

ReadableRange currentStackRange() noexcept {
    if (!ownBounds.known) {
        ownBounds.bounds = findOwnBounds();
        ownBounds.known = true;
    }
    const auto stackPointer = reinterpret_cast<std::uint64_t>(__builtin_frame_address(0));
    return readableStack(ownBounds.bounds, stackPointer);
}

void rememberOwnStack() noexcept {
    ownRange = ownStackFromThreadLibrary();
    if (ownRange != 0) {
        enter(currentThreadId(), ownRange);
    }
}

void rememberFirstThreadStack() noexcept {
    const std::uint64_t range = mappedFirstStack();
    if (range == 0) {
        return;
    }
    enter(currentProcessId(), range);
    if (currentThreadId() == currentProcessId()) {
        ownRange = range;
    }
}

void forgetOwnStack() noexcept {
    ownRange = 0;
    leave(currentThreadId());
}

}  // namespace ThreadUtilities::platform
