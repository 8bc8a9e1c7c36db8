// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Steps with every check that a predicted rule does without: by a rule that has to be searched for,
// by the unwind tables, or by the code.

#include <cstdint>

#include "unwind/rule_cache.h"
#include "unwind/stack_words.h"
#include "unwind/walk.h"
#include "unwind/walk_state.h"

namespace ThreadUtilities::cfi {

/// Makes the module that covers `address` that of the walk; false when there is none.
bool enterModule(WalkState& state, std::uint64_t address) noexcept;

/// The identity of the module that covers `address`, which becomes that of the walk, as a key has
/// it.
std::uint64_t identityOfModule(WalkState& state, std::uint64_t address) noexcept;

/// The registers at the start of the walk become those of its frame.
void loadStart(WalkState& state) noexcept;

/// One step outward. Stores the rule of a row that is new to the cache. Without `usesRules` every
/// step goes by the tables.
StepResult stepInFull(RuleCache& cache, bool usesRules, WalkState& state, StackWords& words,
                      Position& position) noexcept;

/// One step outward by the code of the function that `from` stands in, whose tables leave out what
/// it pushed.
bool stepByCodeFrom(const WalkState::Interrupted& from, WalkState& state, StackWords& words,
                    Position& position) noexcept;

/// Whether an address that no step is made from is one that a call returns to, or that a signal
/// handler or a thread's first function is made to return to.
bool isReturnAddress(const RuleCache& cache, WalkState& state, std::uint64_t address) noexcept;

}  // namespace ThreadUtilities::cfi
