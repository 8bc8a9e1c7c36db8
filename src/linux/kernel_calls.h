// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// System calls without the C library between: no errno, no cancellation point, no symbol that a
// signal handler would have to import.

#include <linux/futex.h>
#include <sys/syscall.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

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
