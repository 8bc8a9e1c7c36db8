// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <atomic>
#include <cstdint>

namespace ThreadUtilities::platform {

/// In a copied process `action` runs once everything registered has been restarted, and before
/// other code of the copy. One action; without one nothing more happens. Not in a copy that was
/// made without the C library's fork handlers (`_Fork`, bare `clone`), where it might not allocate.
void setActionAfterCopy(void (*action)()) noexcept;

/// A word that the kernel sets to 0 in every copy of the process. Odd where the library's state is
/// this process's, and another number in each copy; even while one thread makes it so.
extern std::atomic<std::uint32_t>* processMark;

inline bool isReady(std::uint32_t mark) noexcept {
    return (mark & 1) != 0;
}

void restartInUnannouncedCopy() noexcept;

/// Restarts everything registered in a copy that nobody announced. Async-signal-safe.
inline void noticeCopy() noexcept {
    if (!isReady(processMark->load(std::memory_order_acquire))) [[unlikely]] {
        restartInUnannouncedCopy();
    }
}

}  // namespace ThreadUtilities::platform
