// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// State that must start afresh in a fork child.

namespace ThreadUtilities::platform {

/// Names a function that puts some state of the library back to "just loaded". Where the system has
/// `fork`, all of them are called in the child, in the order of their registration, on its only
/// thread, before any other code of the library runs there. The fork may happen at any moment:
/// locks may be held and containers half changed by threads that the child does not have, so a
/// restart function replaces such objects in place and never reads or destroys them.
///
/// For objects of static storage duration that live as long as the library.
class RestartInForkChild {
 public:
    explicit RestartInForkChild(void (*restart)()) noexcept;

    RestartInForkChild(const RestartInForkChild&) = delete;
    RestartInForkChild& operator=(const RestartInForkChild&) = delete;

    void (*restart)();
    RestartInForkChild* next = nullptr;
};

}  // namespace ThreadUtilities::platform
