// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// State that must start afresh when a system copies a running process.

namespace ThreadUtilities::platform {

/// Names a function that puts some state of the library back to "just loaded". A system that can
/// copy a running process calls all of them, in the order of their registration, in the copy, on
/// its only thread, before any other code of the copy runs. The copy may have been made at any
/// moment: locks may be held and containers half changed by threads that the copy does not have,
/// so a restart function replaces such objects in place and never reads or destroys them.
///
/// For objects of static storage duration that live as long as the library.
class RestartInCopy {
 public:
    explicit RestartInCopy(void (*restart)()) noexcept;

    RestartInCopy(const RestartInCopy&) = delete;
    RestartInCopy& operator=(const RestartInCopy&) = delete;

    void (*restart)();
    RestartInCopy* next = nullptr;
};

}  // namespace ThreadUtilities::platform
