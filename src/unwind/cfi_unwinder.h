// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>
#include <utility>
#include "platform/thread_context.h"
#include "unwind/call_site.h"
#include "unwind/compiled_rule.h"
#include "unwind/full_step.h"
#include "unwind/known_crossings.h"
#include "unwind/known_paths.h"
#include "unwind/predicted_step.h"
#include "unwind/rule_cache.h"
#include "unwind/stack_words.h"
#include "unwind/walk.h"
#include "unwind/walk_memory.h"
#include "unwind/walk_state.h"

namespace ThreadUtilities::cfi {

/// The unwinder that `walkStack` drives.
///
/// Most steps are made by a known path, several at a time, or by a cached rule, found where the
/// frame before predicted it. Both change nothing but the position: `stepAhead` makes these in a
/// loop that keeps the position in processor registers, and `step` all others.
class CfiUnwinder {
 public:
    enum class Keeps {
        FramePointer,  ///< and the stack pointer; cached rules lose the other registers
        AllRegisters,  ///< every step goes by the tables
    };

    /// The stack's words stand `shift` away from their addresses. Crossings are known only to walks
    /// that are a thread's own.
    CfiUnwinder(const WalkMemory& memory, Keeps keeps, StackWords& stackWords, std::uint64_t shift,
                bool isOwn, WalkState& walkState) noexcept
        : cache(memory.rules),
          paths(memory.paths),
          crossings(isOwn ? memory.crossings : nullptr),
          state(walkState),
          stack(stackWords),
          usesCache(keeps == Keeps::FramePointer),
          permanentIdentity(orNone(memory.permanentIdentity)),
          readableEnd(stackWords.readableEnd()),
          stackShift(shift) {
        at.instructionPointer = state.start[platform::Rip];
        at.stackPointer = state.start[platform::Rsp];
        at.framePointer = state.start[platform::Rbp];
        state.knowsFramePointer =
            (state.knownRegisters & platform::registerBit(platform::Rbp)) != 0;
    }

    std::uint64_t programCounter() const noexcept { return at.instructionPointer; }
    std::uint64_t stackPointer() const noexcept { return at.stackPointer; }

    /// Lets the first step be one by a cached rule too. The walk starts behind a call, or at an
    /// address that the tables describe like the byte before it, in a module that is never
    /// unloaded; all its registers are known, and its stack pointer is in the readable range.
    void startAsCaller() noexcept {
        state.atReturnAddress = true;
        at.identity = permanentIdentity;
        at.predicted = cache.latest(at.instructionPointer - 1);
    }

    /// Only from where the walk starts, in code without tables. Such code need not be a leaf, so
    /// the word on its stack may be anything; it counts when a module's code calls right before it.
    /// Because even such a word may be a stale one, nothing promises that the module stays, and all
    /// the walk finds from there on is read as for a thread that is not held.
    bool returnTo(std::uint64_t address, std::uint64_t stackPointer) noexcept {
        if (state.tables.copies == nullptr || !state.mayCallSystem) {
            state.lacksCopies = state.mayCallSystem;
            return false;
        }
        if (callSiteAt(state.tables.space, address) != CallSite::Behind ||
            !enterModule(state, address - 1)) {
            return false;
        }
        loadStart(state);
        state.stackPointerOfRegisters = stackPointer;
        state.atReturnAddress = true;
        at.instructionPointer = address;
        at.stackPointer = stackPointer;
        return true;
    }

    /// From a place of interruption whose tables claim that nothing is on the stack but the return
    /// address. Those of assembly may leave out what it pushed.
    bool stepByCode(StackWords& words, std::uint64_t stackPointer) noexcept {
        const WalkState::Interrupted from = std::exchange(state.interrupted, {});
        if (from.stackPointer == 0 || stackPointer != from.stackPointer + 8) {
            return false;
        }
        Position position = at;
        const bool made = stepByCodeFrom(from, state, words, position);
        at = position;
        readableEnd = words.readableEnd();
        return made;
    }

    /// The steps by known paths and predicted rules, up to the end of the stack, where the
    /// instruction pointer is 0 then. Where one leads is checked when the next is made: only true
    /// return addresses have rules.
    /// Not inlined: the position of a walk needs all of the processor's registers.
    [[gnu::noinline]] std::size_t stepAhead(unsigned long long* frames, std::size_t room) noexcept {
        Position position = at;
        unsigned long long* next = frames;
        unsigned long long* const end = frames + room;
        const bool hasPaths =
            position.identity == permanentIdentity && permanentIdentity != RuleCache::noIdentity;
        bool goesOn = true;
        while (goesOn && next != end) {
            if (hasPaths && followPaths(position, next, end) == KnownPaths::Outcome::Unknown) {
                at = position;
                const std::size_t made = learnPath(next);
                position = at;
                next += made;
                goesOn = made != 0;
                continue;
            }
            Prediction prediction = Prediction::Made;
            // Stored before the position changes: so no register keeps the old one.
            const auto store = [&](std::uint64_t arrivedAt, CompiledRule) { *next++ = arrivedAt; };
            do {
                if (next == end) {
                    break;
                }
                prediction =
                    cfi::stepByPredictedRule(cache, readableEnd, stackShift, position, store);
            } while (prediction == Prediction::Made && !hasPaths);
            goesOn = prediction == Prediction::Made;
            if (prediction == Prediction::EndOfStack) {
                *next++ = std::exchange(position.instructionPointer, 0);
            } else if (prediction == Prediction::Beyond) {
                at = position;
                goesOn = reachFarther();
            }
        }
        at = position;
        return static_cast<std::size_t>(next - frames);
    }

    [[gnu::noinline]] StepResult step(StackWords& words) noexcept {
        Prediction outcome = stepByPredictedRule();
        if (outcome == Prediction::Beyond) {
            outcome = stepFarther();
        } else if (outcome == Prediction::Missed && at.identity != RuleCache::noIdentity) {
            outcome = stepInOtherModule();
            if (outcome == Prediction::Beyond) {
                outcome = stepFarther();
            }
        }
        if (outcome == Prediction::Made) {
            return StepResult::Made;
        }
        if (outcome == Prediction::EndOfStack) {
            return StepResult::EndOfStack;
        }
        Position position = at;
        const StepResult result = stepInFull(cache, usesCache, state, words, position);
        at = position;
        readableEnd = words.readableEnd();
        return result;
    }

    bool isReturnedTo() noexcept {
        CompiledRule rule;
        RuleCache::Slot next = 0;
        return cache.find(at.predicted, {at.instructionPointer - 1, at.identity}, rule, next) ||
               isReturnAddress(cache, state, at.instructionPointer);
    }

 private:
    Prediction stepByPredictedRule() noexcept {
        return cfi::stepByPredictedRule(cache, readableEnd, stackShift, at,
                                        [](std::uint64_t, CompiledRule) {});
    }

    /// The steps by known paths, one path after the other. `Unknown` where a path can be learned.
    [[gnu::always_inline]] KnownPaths::Outcome followPaths(Position& position,
                                                           unsigned long long*& next,
                                                           unsigned long long* end) const noexcept {
        constexpr std::ptrdiff_t pathLength = KnownPaths::length;
        const unsigned long long* const from = next;
        auto outcome = KnownPaths::Outcome::Followed;
        while (outcome == KnownPaths::Outcome::Followed && end - next >= pathLength) {
            outcome = paths->follow(readableEnd, stackShift, position, next);
        }
        if (next != from) {
            position.predicted = cache.latest(position.instructionPointer - 1);
            position.previous = RuleCache::noSlot;
        }
        return outcome;
    }

    /// Steps by predicted rules, up to as many as a path has, that become the path from here.
    /// Returns how many were made.
    [[gnu::noinline]] std::size_t learnPath(unsigned long long* frames) noexcept {
        KnownPaths::Steps steps;
        steps.begin = at.instructionPointer;
        steps.stackPointer = at.stackPointer;
        std::size_t made = 0;
        CompiledRule rule;
        const auto store = [&](std::uint64_t arrivedAt, CompiledRule by) {
            frames[made++] = arrivedAt;
            rule = by;
        };
        Prediction outcome = Prediction::Made;
        while (made != KnownPaths::length) {
            const Position from = at;
            outcome = cfi::stepByPredictedRule(cache, readableEnd, stackShift, at, store);
            const bool goesOn = outcome == Prediction::Made
                                    ? KnownPaths::add(steps, rule, from, at)
                                    : outcome == Prediction::Beyond && reachFarther();
            if (!goesOn) {
                break;
            }
        }
        if (outcome == Prediction::EndOfStack || (made != 0 && outcome != Prediction::Beyond)) {
            paths->learn(steps);
        }
        return made;
    }

    /// Whether more of the stack is readable now for the predicted rule. It needs that no more than
    /// twice: for a base that lies beyond, and for the CFA above it.
    bool reachFarther() noexcept {
        const std::uint64_t before = readableEnd;
        readableEnd = reach(cache, crossings, stack, at);
        return readableEnd != before;
    }

    Prediction stepFarther() noexcept {
        Prediction outcome = Prediction::Beyond;
        while (outcome == Prediction::Beyond && reachFarther()) {
            outcome = stepByPredictedRule();
        }
        return outcome;
    }

    // The caller may be in another module: in one of those that are never unloaded, which needs no
    // look at where they are, or in any other.
    Prediction stepInOtherModule() noexcept {
        if (at.identity != permanentIdentity) {
            at.identity = permanentIdentity;
            const Prediction outcome = stepByPredictedRule();
            if (outcome != Prediction::Missed) {
                return outcome;
            }
        }
        if (covers(state.module, at.instructionPointer - 1)) {
            return Prediction::Missed;
        }
        at.identity = identityOfModule(state, at.instructionPointer - 1);
        return stepByPredictedRule();
    }

    RuleCache& cache;
    KnownPaths* const paths;
    KnownCrossings* const crossings;  ///< without, each page is asked for
    WalkState& state;
    StackWords& stack;
    const bool usesCache;
    const std::uint64_t permanentIdentity;
    std::uint64_t readableEnd;  ///< of the stack, from the stack pointer on
    const std::uint64_t stackShift;
    Position at;
};

}  // namespace ThreadUtilities::cfi
