// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdlib>

/// Ends the program where a fuzz target finds what must never be.
inline void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}
