// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The step by a rule that is found where the frame before predicted it: most steps of most walks.

#include <cstdint>

#include "unwind/compiled_rule.h"
#include "unwind/known_crossings.h"
#include "unwind/rule_cache.h"
#include "unwind/stack_words.h"
#include "unwind/walk_state.h"

namespace ThreadUtilities::cfi {

enum class Prediction {
    Made,        ///< and the step with it
    EndOfStack,  ///< the rule is there and says so
    Beyond,      ///< the rule is there and needs more of the stack; nothing has changed
    Missed,      ///< or not to be followed without more checks; nothing has changed
};

/// `leave` is called with the instruction pointer that a step is made from, and its rule.
template <class Leave>
[[gnu::always_inline]] inline Prediction stepByPredictedRule(const RuleCache& cache,
                                                             std::uint64_t readableEnd,
                                                             std::uint64_t stackShift, Position& at,
                                                             Leave leave) noexcept {
    CompiledRule rule;
    RuleCache::Slot next = 0;
    if (!cache.find(at.predicted, {at.instructionPointer - 1, at.identity}, rule, next))
        [[unlikely]] {
        return Prediction::Missed;
    }
    std::uint64_t base = at.stackPointer;
    if (rule.usesFramePointer()) [[unlikely]] {
        if (rule.isNone()) [[unlikely]] {
            return rule.hasCaller() ? Prediction::Missed : Prediction::EndOfStack;
        }
        base = at.framePointer;
        if (base < at.stackPointer) [[unlikely]] {
            return Prediction::Missed;
        }
        if (base > readableEnd) [[unlikely]] {
            return Prediction::Beyond;
        }
    }
    // The stack is readable from the base, which is at or above the stack pointer, to the end;
    // no slot lies below the base; no sum leaves 64 bits, because the end of user memory is far
    // from there.
    const std::uint64_t cfa = base + rule.cfaOffset();
    if (cfa > readableEnd) [[unlikely]] {
        return Prediction::Beyond;
    }
    leave(at.instructionPointer, rule);
    const std::uint64_t saved = StackWords::load(cfa - rule.framePointerDistance() + stackShift);
    at.framePointer = rule.savesFramePointer() ? saved : at.framePointer;
    at.instructionPointer = StackWords::load(cfa - 8 + stackShift);
    at.stackPointer = cfa;
    at.previous = at.predicted;
    at.predicted = next;
    return Prediction::Made;
}

/// Makes the stack readable up to where the predicted rule needs it, if it can: up to the base
/// that the rule counts from, or up to the CFA. Returns where it ends then.
[[gnu::noinline]] inline std::uint64_t reach(const RuleCache& cache, KnownCrossings* crossings,
                                             StackWords& words, Position position) noexcept {
    CompiledRule rule;
    RuleCache::Slot next = 0;
    const std::uint64_t from = words.readableEnd();
    if (!cache.find(position.predicted, {position.instructionPointer - 1, position.identity}, rule,
                    next)) {
        return from;
    }
    const bool byStackPointer = !rule.usesFramePointer();
    const std::uint64_t base = byStackPointer ? position.stackPointer : position.framePointer;
    const std::uint64_t needed = base > from ? base : base + rule.cfaOffset();
    const KnownCrossings::Crossing crossing{position.instructionPointer, position.stackPointer,
                                            from};
    if (!byStackPointer || crossings == nullptr) {
        words.extendTo(needed);
    } else if (const std::uint64_t end = crossings->endAfter(crossing); end >= needed) {
        words.trustTo(end);
    } else if (words.extendTo(needed)) {
        crossings->learn(crossing, words.readableEnd());
    }
    return words.readableEnd();
}

}  // namespace ThreadUtilities::cfi
