// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

namespace ThreadUtilities {

/// An object of static storage duration that is never destroyed, because threads may still use it
/// while the process exits. Initialised as a constant wherever the value's constructor allows that;
/// not every system's mutex does, therefore without `constinit`.
template <class Value>
union NeverDestroyed {
    constexpr NeverDestroyed() : value() {}
    ~NeverDestroyed() {}  // NOLINT(modernize-use-equals-default)

    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;

    Value value;
};

}  // namespace ThreadUtilities
