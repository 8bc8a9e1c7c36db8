// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>
#include <utility>
#include "platform/code_modules.h"
#include "platform/thread_context.h"
#include "unwind/call_site.h"
#include "unwind/code_depth.h"
#include "unwind/compiled_rule.h"
#include "unwind/frame_pointer_recovery.h"
#include "unwind/known_crossings.h"
#include "unwind/register_file.h"
#include "unwind/rule_cache.h"
#include "unwind/stack_words.h"
#include "unwind/table_reader.h"
#include "unwind/table_step.h"
#include "unwind/walk.h"

namespace ThreadUtilities::cfi {

/// What a walk knows beyond its position.
struct WalkMemory {
    WalkMemory(const platform::Registers& startRegisters, std::uint32_t knownAtStart,
               bool systemMayBeCalled, TableCopies* tableCopies) noexcept
        : start(startRegisters),
          knownRegisters(knownAtStart),
          mayCallSystem(systemMayBeCalled),
          copies(tableCopies) {}

    const platform::Registers& start;
    const std::uint32_t knownRegisters;  ///< of `start`
    const bool mayCallSystem;
    /// Given where modules may be unloaded that the walk finds: the thread is not held, or the walk
    /// went on from a guess.
    TableCopies* const copies;
    bool lacksCopies = false;  ///< for the guess that would lead on

    platform::CodeModule module;  ///< of the frame before, most likely of this one too
    /// The registers of the frame whose stack pointer is `registersBelong`, for steps by tables.
    RegisterFile registers;
    std::uint64_t registersBelong = 0;
    bool knowsFramePointer = true;
    /// From the instruction pointer back to what is looked up. 1 for a return address: it may
    /// belong to the next function, or to another row, when the call does not return, whereas the
    /// call lies before it. 0 where the thread stands and where a signal struck.
    std::uint64_t callSize = 0;

    /// Where the thread was interrupted that has been stepped out of last; a stack pointer of 0
    /// for none.
    struct Interrupted {
        std::uint64_t instructionPointer = 0;
        std::uint64_t stackPointer = 0;
        std::uint64_t framePointer = 0;
    } interrupted;
};

/// The unwinder that `walkStack` drives.
///
/// Most steps are made by a cached rule, found where the frame before predicted it, and change
/// nothing but the position: `stepAhead` makes these in a loop that keeps the position in processor
/// registers, and `step` all others.
class CfiUnwinder {
 public:
    enum class Keeps {
        FramePointer,  ///< and the stack pointer; cached rules lose the other registers
        AllRegisters,  ///< every step goes by the tables
    };

    /// The stack's words stand `shift` away from their addresses. Without `knownCrossings` each
    /// page is asked for.
    CfiUnwinder(RuleCache& ruleCache, Keeps keeps, StackWords& stackWords, std::uint64_t shift,
                KnownCrossings* knownCrossings, WalkMemory& walkMemory) noexcept
        : cache(ruleCache),
          crossings(knownCrossings),
          memory(walkMemory),
          usesCache(keeps == Keeps::FramePointer),
          permanentIdentity(orNone(platform::permanentIdentity())),
          readableEnd(stackWords.readableEnd()),
          stackShift(shift) {
        at.instructionPointer = memory.start[platform::Rip];
        at.stackPointer = memory.start[platform::Rsp];
        at.framePointer = memory.start[platform::Rbp];
        memory.knowsFramePointer =
            (memory.knownRegisters & platform::registerBit(platform::Rbp)) != 0;
    }

    std::uint64_t programCounter() const noexcept { return at.instructionPointer; }
    std::uint64_t stackPointer() const noexcept { return at.stackPointer; }

    /// Lets the first step be one by a cached rule too. The walk starts behind a call, or at an
    /// address that the tables describe like the byte before it, in a module that is never
    /// unloaded; all its registers are known, and its stack pointer is in the readable range.
    void startAsCaller() noexcept {
        memory.callSize = 1;
        at.identity = permanentIdentity;
        at.predicted = cache.latest(at.instructionPointer - 1);
    }

    /// Only from where the walk starts, in code without tables. Such code need not be a leaf, so
    /// the word on its stack may be anything; it counts when a module's code calls right before it.
    /// Because even such a word may be a stale one, nothing promises that the module stays, and all
    /// the walk finds from there on is read as for a thread that is not held.
    bool returnTo(std::uint64_t address, std::uint64_t stackPointer) noexcept {
        if (memory.copies == nullptr || !memory.mayCallSystem) {
            memory.lacksCopies = memory.mayCallSystem;
            return false;
        }
        if (callSiteAt(address) != CallSite::Behind || !enterModule(memory, address - 1)) {
            return false;
        }
        loadStart(memory);
        memory.registersBelong = stackPointer;
        memory.callSize = 1;
        at.instructionPointer = address;
        at.stackPointer = stackPointer;
        return true;
    }

    /// From a place of interruption whose tables claim that nothing is on the stack but the return
    /// address. Those of assembly may leave out what it pushed.
    bool stepByCode(StackWords& words, std::uint64_t stackPointer) noexcept {
        const WalkMemory::Interrupted from = std::exchange(memory.interrupted, {});
        if (from.stackPointer == 0 || stackPointer != from.stackPointer + 8) {
            return false;
        }
        Position position = at;
        const bool made = stepByCode(from, memory, words, position);
        at = position;
        readableEnd = words.readableEnd();
        return made;
    }

    /// The steps by predicted rules that need no more of the stack than is known to be readable.
    /// Where one leads is checked when the next is made: only true return addresses have rules.
    /// Not inlined: the position of a walk needs all of the processor's registers.
    [[gnu::noinline]] std::size_t stepAhead(unsigned long long* frames, std::size_t room) noexcept {
        Position position = at;
        unsigned long long* next = frames;
        unsigned long long* const end = frames + room;
        // Stored before the position changes: so no register keeps the old one.
        const auto store = [&next](std::uint64_t arrivedAt) { *next++ = arrivedAt; };
        while (next != end && stepByPredictedRule(cache, readableEnd, stackShift, position,
                                                  store) == Prediction::Made) {
        }
        at = position;
        return static_cast<std::size_t>(next - frames);
    }

    [[gnu::noinline]] StepResult step(StackWords& words) noexcept {
        Prediction outcome = stepByPredictedRule();
        if (outcome == Prediction::Beyond) {
            outcome = stepFarther(words);
        } else if (outcome == Prediction::Wrong && at.identity != RuleCache::noIdentity) {
            outcome = stepInOtherModule();
            if (outcome == Prediction::Beyond) {
                outcome = stepFarther(words);
            }
        }
        if (outcome == Prediction::Made) {
            return StepResult::Made;
        }
        if (outcome == Prediction::EndOfStack) {
            return StepResult::EndOfStack;
        }
        Position position = at;
        const StepResult result = stepSlowly(cache, usesCache, memory, words, position);
        at = position;
        readableEnd = words.readableEnd();
        return result;
    }

    bool isReturnedTo() noexcept {
        CompiledRule rule;
        RuleCache::Slot next = 0;
        return cache.find(at.predicted, {at.instructionPointer - 1, at.identity}, rule, next) ||
               isReturnAddress(cache, memory, at.instructionPointer);
    }

 private:
    static constexpr RuleCache::Slot noSlot = ~RuleCache::Slot{0};

    struct Position {
        std::uint64_t instructionPointer = 0;
        std::uint64_t stackPointer = 0;
        std::uint64_t framePointer = 0;
        RuleCache::Slot predicted = 0;      ///< where the rule of this frame is expected
        RuleCache::Slot previous = noSlot;  ///< where the rule of the frame before stands
        /// Of the module that the frame before was in; none unless the next step may be one by a
        /// cached rule: the instruction pointer is a return address, the frame pointer known, and
        /// the stack pointer in the part of the stack known to be readable.
        std::uint64_t identity = RuleCache::noIdentity;
    };

    enum class Prediction {
        Made,        ///< and the step with it
        EndOfStack,  ///< the rule is there and says so
        Beyond,      ///< the rule is there and needs more of the stack; nothing has changed
        Wrong,       ///< or not to be followed without more checks; nothing has changed
    };

    Prediction stepByPredictedRule() noexcept {
        return stepByPredictedRule(cache, readableEnd, stackShift, at, [](std::uint64_t) {});
    }

    /// `leave` is called with the instruction pointer that a step is made from.
    template <class Leave>
    [[gnu::always_inline]] static Prediction stepByPredictedRule(const RuleCache& cache,
                                                                 std::uint64_t readableEnd,
                                                                 std::uint64_t stackShift,
                                                                 Position& at,
                                                                 Leave leave) noexcept {
        CompiledRule rule;
        RuleCache::Slot next = 0;
        if (!cache.find(at.predicted, {at.instructionPointer - 1, at.identity}, rule, next))
            [[unlikely]] {
            return Prediction::Wrong;
        }
        std::uint64_t base = at.stackPointer;
        if (rule.usesFramePointer()) [[unlikely]] {
            if (rule.isNone()) [[unlikely]] {
                return rule.hasCaller() ? Prediction::Wrong : Prediction::EndOfStack;
            }
            base = at.framePointer;
            if (base < at.stackPointer) [[unlikely]] {
                return Prediction::Wrong;
            }
            if (base > readableEnd) [[unlikely]] {
                return Prediction::Beyond;
            }
        }
        // The stack is readable from the base, which is at or above the stack pointer, to the end;
        // no slot lies below the base; no sum leaves 64 bits, because the end of user memory is far
        // from there.
        const std::uint64_t frameAddress = base + rule.frameAddressOffset();
        if (frameAddress > readableEnd) [[unlikely]] {
            return Prediction::Beyond;
        }
        leave(at.instructionPointer);
        const std::uint64_t saved =
            StackWords::load(frameAddress - rule.framePointerDistance() + stackShift);
        at.framePointer = rule.savesFramePointer() ? saved : at.framePointer;
        at.instructionPointer = StackWords::load(frameAddress - 8 + stackShift);
        at.stackPointer = frameAddress;
        at.previous = at.predicted;
        at.predicted = next;
        return Prediction::Made;
    }

    /// Makes the stack readable up to where the predicted rule needs it, if it can: up to the base
    /// that the rule counts from, or up to the frame address. Returns where it ends then.
    [[gnu::noinline]] static std::uint64_t reach(const RuleCache& cache, KnownCrossings* crossings,
                                                 StackWords& words, Position position) noexcept {
        CompiledRule rule;
        RuleCache::Slot next = 0;
        const std::uint64_t from = words.readableEnd();
        if (!cache.find(position.predicted, {position.instructionPointer - 1, position.identity},
                        rule, next)) {
            return from;
        }
        const bool byStackPointer = !rule.usesFramePointer();
        const std::uint64_t base = byStackPointer ? position.stackPointer : position.framePointer;
        const std::uint64_t needed = base > from ? base : base + rule.frameAddressOffset();
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

    // Each extension makes more of the stack readable, so a rule needs no more than two: for a base
    // that lies beyond, and for the frame address above it.
    Prediction stepFarther(StackWords& words) noexcept {
        Prediction outcome = Prediction::Beyond;
        while (outcome == Prediction::Beyond) {
            const std::uint64_t end = reach(cache, crossings, words, at);
            if (end == readableEnd) {
                break;
            }
            readableEnd = end;
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
            if (outcome != Prediction::Wrong) {
                return outcome;
            }
        }
        if (covers(memory.module, at.instructionPointer - 1)) {
            return Prediction::Wrong;
        }
        at.identity = identityOfModule(memory, at.instructionPointer - 1);
        return stepByPredictedRule();
    }

    static bool covers(const platform::CodeModule& module, std::uint64_t address) noexcept {
        return address - module.begin < module.size;
    }

    static bool enterModule(WalkMemory& memory, std::uint64_t address) noexcept {
        if (!platform::findCodeModule(address, memory.module, memory.mayCallSystem)) {
            memory.module = {};
            return false;
        }
        return true;
    }

    /// As a key has it.
    static std::uint64_t orNone(std::uint64_t identity) noexcept {
        return identity != 0 ? identity : RuleCache::noIdentity;
    }

    [[gnu::noinline]] static std::uint64_t identityOfModule(WalkMemory& memory,
                                                            std::uint64_t address) noexcept {
        return enterModule(memory, address) ? orNone(memory.module.identity)
                                            : RuleCache::noIdentity;
    }

    static RuleCache::Key keyOf(const WalkMemory& memory, std::uint64_t address) noexcept {
        // An address at which a thread was interrupted says nothing of the same one as one byte
        // before a return address.
        constexpr std::uint64_t interrupted = 0x3C79AC492BA7B653;
        const std::uint64_t identity = orNone(memory.module.identity);
        const bool isOther = memory.callSize == 0 && identity != RuleCache::noIdentity;
        return {address, isOther ? identity + interrupted : identity};
    }

    static bool isAtStart(const WalkMemory& memory, const Position& position) noexcept {
        return position.stackPointer == memory.start[platform::Rsp] &&
               position.instructionPointer == memory.start[platform::Rip];
    }

    // The return addresses in the cache are true ones: behind a call, or where a signal handler or
    // a thread's first function is made to return to, as the tables have it. So a walk by cached
    // rules checks none, and any other checks those that are new to the cache.
    [[gnu::noinline]] static StepResult stepSlowly(RuleCache& cache, bool usesRules,
                                                   WalkMemory& memory, StackWords& words,
                                                   Position& position) noexcept {
        const Position before = position;
        const std::uint64_t callSize = memory.callSize;
        const StepResult result = stepByRuleOrTables(cache, usesRules, memory, words, position);
        if (result != StepResult::UnknownRegister || !lacksFramePointer(memory)) [[likely]] {
            return result;
        }
        if (callSize == 0 && !isBehindSystemCall(before.instructionPointer)) {
            return result;  // the function may be about to return, its frame half gone
        }
        position = before;
        memory.callSize = callSize;
        memory.knowsFramePointer =
            recoverFramePointer(memory.module, before.instructionPointer - callSize,
                                before.stackPointer, memory.copies, words, position.framePointer);
        return memory.knowsFramePointer
                   ? stepByRuleOrTables(cache, usesRules, memory, words, position)
                   : result;
    }

    /// Of a thread that is looked at from outside: no context of a held one lacks it.
    static bool lacksFramePointer(const WalkMemory& memory) noexcept {
        return !memory.knowsFramePointer &&
               (memory.knownRegisters & platform::registerBit(platform::Rbp)) == 0;
    }

    [[gnu::noinline]] static StepResult stepByRuleOrTables(RuleCache& cache, bool usesRules,
                                                           WalkMemory& memory, StackWords& words,
                                                           Position& position) noexcept {
        const std::uint64_t address = position.instructionPointer - memory.callSize;
        if (memory.callSize == 0 && memory.knowsFramePointer) {
            memory.interrupted = {position.instructionPointer, position.stackPointer,
                                  position.framePointer};
        }
        bool isTrue = memory.callSize == 0 || isAtStart(memory, position);
        if (!covers(memory.module, address) && !enterModule(memory, address)) {
            isTrue = isTrue || callSite(memory, position.instructionPointer) == CallSite::Behind;
            return isTrue ? StepResult::NoUnwindData : StepResult::NotReturnedTo;
        }
        const RuleCache::Key key = keyOf(memory, address);
        const RuleCache::Slot previous = std::exchange(position.previous, noSlot);
        CompiledRule rule;
        RuleCache::Slot slot = noSlot;
        StepResult result = StepResult::Made;
        const bool isKnown = key.identity != RuleCache::noIdentity &&
                             cache.search(key, rule, slot, position.predicted);
        if (isKnown && usesRules && !rule.needsTables()) {
            result = applyRule(rule, memory, words, position);
        } else {
            const CallSite site = isTrue || isKnown ? CallSite::Behind
                                                    : callSite(memory, position.instructionPointer);
            result = applyTables(address, memory, words, position, rule);
            isTrue = site == CallSite::Behind || result == StepResult::EndOfStack ||
                     (result == StepResult::Made && memory.callSize == 0);
            if (!isTrue && (site == CallSite::NotBehind || result == StepResult::NoUnwindData)) {
                return StepResult::NotReturnedTo;
            }
            if (!rule && result == StepResult::Made) {
                rule = CompiledRule::byTables();
            }
            if (!isKnown) {
                const bool isKept = isTrue && rule && key.identity != RuleCache::noIdentity;
                slot = isKept ? cache.store(key, rule) : noSlot;
            }
        }
        if (usesRules && slot != noSlot && previous != noSlot) {
            cache.predict(previous, slot);
        }
        position.previous = slot;
        const bool isSteady = usesRules && memory.knowsFramePointer && memory.callSize == 1 &&
                              words.covers(position.stackPointer, position.stackPointer);
        position.identity = isSteady ? orNone(memory.module.identity) : RuleCache::noIdentity;
        return result;
    }

    [[gnu::noinline]] static bool stepByCode(const WalkMemory::Interrupted& from,
                                             WalkMemory& memory, StackWords& words,
                                             Position& position) noexcept {
        // What is found may be a stale word, as for `returnTo`.
        if (memory.copies == nullptr || !memory.mayCallSystem) {
            memory.lacksCopies = memory.mayCallSystem;
            return false;
        }
        CalledFrame caller;
        if (!enterModule(memory, from.instructionPointer) ||
            !findCallerByCode(memory.module, from.instructionPointer, from.stackPointer,
                              from.framePointer, memory.copies, words, caller)) {
            return false;
        }
        position = {};
        position.instructionPointer = caller.returnAddress;
        position.stackPointer = caller.stackPointer;
        position.framePointer = caller.framePointer;
        memory.knowsFramePointer = true;
        memory.registersBelong = 0;
        memory.callSize = 1;
        return true;
    }

    static CallSite callSite(const WalkMemory& memory, std::uint64_t address) noexcept {
        return memory.mayCallSystem ? callSiteAt(address) : CallSite::Unreadable;
    }

    /// The same of an address that no step is made from.
    [[gnu::noinline]] static bool isReturnAddress(const RuleCache& cache, WalkMemory& memory,
                                                  std::uint64_t address) noexcept {
        if (memory.callSize == 0) {
            return true;
        }
        const bool inModule =
            covers(memory.module, address - 1) || enterModule(memory, address - 1);
        CompiledRule rule;
        RuleCache::Slot slot = noSlot;
        RuleCache::Slot next = noSlot;
        const RuleCache::Key key = keyOf(memory, address - 1);
        if (inModule && key.identity != RuleCache::noIdentity &&
            cache.search(key, rule, slot, next)) {
            return true;
        }
        const CallSite site = callSite(memory, address);
        if (site == CallSite::Behind || !inModule) {
            return site == CallSite::Behind;
        }
        TableRow found;
        if (findTableRow(memory.module, address - 1, memory.copies, found) != StepResult::Made) {
            return false;
        }
        return site == CallSite::Unreadable || found.isSignalFrame || found.hasNoCaller();
    }

    static StepResult applyRule(CompiledRule rule, WalkMemory& memory, StackWords& words,
                                Position& position) noexcept {
        if (!rule.hasCaller()) {
            return StepResult::EndOfStack;
        }
        if (rule.usesFramePointer() && !memory.knowsFramePointer) {
            return StepResult::UnknownRegister;
        }
        const std::uint64_t base =
            rule.usesFramePointer() ? position.framePointer : position.stackPointer;
        const std::uint64_t frameAddress = base + rule.frameAddressOffset();
        // Upward, as pages are asked for.
        std::uint64_t saved = 0;
        if (!words.read(frameAddress - rule.framePointerDistance(), saved) ||
            !words.read(frameAddress - 8, position.instructionPointer)) {
            return StepResult::Unreadable;
        }
        if (rule.savesFramePointer()) {
            position.framePointer = saved;
            memory.knowsFramePointer = true;
        }
        position.stackPointer = frameAddress;
        memory.callSize = 1;
        return StepResult::Made;
    }

    /// `rule` becomes the rule that does the same; empty if there is none.
    static StepResult applyTables(std::uint64_t address, WalkMemory& memory, StackWords& words,
                                  Position& position, CompiledRule& rule) noexcept {
        RegisterFile& registers = memory.registers;
        if (isAtStart(memory, position)) {
            loadStart(memory);
        } else if (memory.registersBelong != position.stackPointer) {
            registers.forgetAll();
        }
        registers.set(platform::Rip, position.instructionPointer);
        registers.set(platform::Rsp, position.stackPointer);
        if (memory.knowsFramePointer) {
            registers.set(platform::Rbp, position.framePointer);
        }
        const TableStep step =
            stepByTables(memory.module, address, memory.copies, registers, words);
        rule = step.rule;
        position.instructionPointer = registers[platform::Rip];
        position.stackPointer = registers[platform::Rsp];
        position.framePointer = registers[platform::Rbp];
        memory.registersBelong = position.stackPointer;
        memory.knowsFramePointer = registers.has(platform::Rbp);
        memory.callSize = step.isSignalFrame ? 0 : 1;
        return step.result;
    }

    static void loadStart(WalkMemory& memory) noexcept {
        memory.registers = RegisterFile(memory.start, memory.knownRegisters);
        memory.registersBelong = memory.start[platform::Rsp];
    }

    RuleCache& cache;
    KnownCrossings* const crossings;
    WalkMemory& memory;
    const bool usesCache;
    const std::uint64_t permanentIdentity;
    std::uint64_t readableEnd;  ///< of the stack, from the stack pointer on
    const std::uint64_t stackShift;
    Position at;
};

}  // namespace ThreadUtilities::cfi
