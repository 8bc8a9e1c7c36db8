// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <atomic>
#include <cstdint>

namespace ThreadUtilities::platform {

/// In a fork child `action` runs once everything registered has been restarted, and before other
/// code of the child. One action; without one nothing more happens. Not in a child that was made
/// without the C library's fork handlers (`_Fork`, bare `clone`), where it might not allocate.
void setActionInForkChild(void (*action)()) noexcept;

/// A word that the kernel sets to 0 in every fork child. Odd where the library's state is this
/// process's, and another number in each child; even while one thread makes it so.
extern std::atomic<std::uint32_t>* processMark;

inline bool isReady(std::uint32_t mark) noexcept {
    return (mark & 1) != 0;
}

void restartInUnannouncedChild() noexcept;

/// Restarts everything registered in a child that no fork handler announced. Async-signal-safe.
inline void noticeForkChild() noexcept {
    if (!isReady(processMark->load(std::memory_order_acquire))) [[unlikely]] {
        restartInUnannouncedChild();
    }
}

}  // namespace ThreadUtilities::platform
