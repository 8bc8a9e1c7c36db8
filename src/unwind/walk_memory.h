// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>

#include "unwind/known_crossings.h"
#include "unwind/known_paths.h"
#include "unwind/rule_cache.h"

namespace ThreadUtilities::cfi {

/// What the walks through one space keep for each other.
struct WalkMemory {
    RuleCache& rules;
    /// As `platform::permanentIdentity`; 0 in a space of which any module may go.
    std::uint64_t permanentIdentity = 0;
    /// Through modules of that identity, so that a space without needs none.
    KnownPaths* paths = nullptr;
    /// Of threads that walk themselves.
    KnownCrossings* crossings = nullptr;
};

}  // namespace ThreadUtilities::cfi
