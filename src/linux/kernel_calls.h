// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// System calls without the C library between: no errno, no cancellation point, no symbol that a
// signal handler would have to import.

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>

namespace ThreadUtilities::platform {

/// The kernel's own result: negative error numbers on failure.
inline long kernelCall(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0,
                       long f = 0) noexcept {
    register long fourth asm("r10") = d;
    register long fifth asm("r8") = e;
    register long sixth asm("r9") = f;
    long result = number;
    asm volatile("syscall"
                 : "+a"(result)
                 : "D"(a), "S"(b), "d"(c), "r"(fourth), "r"(fifth), "r"(sixth)
                 : "rcx", "r11", "memory");
    return result;
}

template <typename T>
long argument(T* pointer) noexcept {
    return static_cast<long>(reinterpret_cast<std::uintptr_t>(pointer));
}

/// A process id of the moment: never kept, because a child may be made without the C library's
/// knowledge.
inline int kernelProcessId() noexcept {
    return static_cast<int>(kernelCall(SYS_getpid));
}

/// A descriptor, or a negative error number.
inline int openFile(const char* path, int flags) noexcept {
    return static_cast<int>(kernelCall(SYS_openat, AT_FDCWD, argument(path), flags | O_CLOEXEC));
}

/// Copies memory of a process: what lies in the stretches `there`, one behind the other, to the
/// stretches `here`. Returns how many bytes were copied from the front; 0 also on failure.
inline std::size_t copyMemory(int processId, std::span<const iovec> there,
                              std::span<const iovec> here) noexcept {
    const long copied = kernelCall(SYS_process_vm_readv, processId, argument(here.data()),
                                   static_cast<long>(here.size()), argument(there.data()),
                                   static_cast<long>(there.size()), 0);
    return copied > 0 ? static_cast<std::size_t>(copied) : 0;
}

/// Whether the system copies memory of this process at all; a sandbox may deny that.
inline bool canCopyOwnMemory() noexcept {
    int here = 1;
    int copy = 0;
    const iovec from[] = {{&here, sizeof(here)}};
    const iovec to[] = {{&copy, sizeof(copy)}};
    return copyMemory(kernelProcessId(), from, to) == sizeof(copy);
}

constexpr timespec timespecOf(std::chrono::nanoseconds time) noexcept {
    constexpr std::chrono::nanoseconds second = std::chrono::seconds(1);
    return {time / second, (time % second).count()};
}

/// Sleeps about that long, or shorter where a signal handler runs.
inline void sleepFor(std::chrono::nanoseconds time) noexcept {
    const timespec length = timespecOf(time);
    kernelCall(SYS_nanosleep, argument(&length), 0);
}

/// Sleeps while `word` holds `expected`, for at most `timeout`. Returns early as it likes.
inline void futexWait(const std::atomic<std::uint32_t>& word, std::uint32_t expected,
                      const timespec& timeout) noexcept {
    kernelCall(SYS_futex, argument(&word), FUTEX_WAIT_PRIVATE, expected, argument(&timeout));
}

inline void futexWakeAll(const std::atomic<std::uint32_t>& word) noexcept {
    constexpr int everyone = 0x7fffffff;
    kernelCall(SYS_futex, argument(&word), FUTEX_WAKE_PRIVATE, everyone);
}

}  // namespace ThreadUtilities::platform
