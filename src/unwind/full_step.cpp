// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/full_step.h"

#include <cstdint>
#include <utility>

#include "platform/code_modules.h"
#include "platform/thread_context.h"
#include "unwind/call_site.h"
#include "unwind/code_depth.h"
#include "unwind/compiled_rule.h"
#include "unwind/frame_pointer_recovery.h"
#include "unwind/register_file.h"
#include "unwind/table_step.h"

namespace ThreadUtilities::cfi {
namespace {

RuleCache::Key keyOf(const WalkState& state, std::uint64_t address) noexcept {
    // An address at which a thread was interrupted says nothing of the same one as one byte
    // before a return address.
    constexpr std::uint64_t interrupted = 0x3C79AC492BA7B653;
    const std::uint64_t identity = orNone(state.module.identity);
    const bool isOther = !state.atReturnAddress && identity != RuleCache::noIdentity;
    return {address, isOther ? identity + interrupted : identity};
}

std::uint64_t lookupAddress(const Position& position, bool atReturnAddress) noexcept {
    return position.instructionPointer - (atReturnAddress ? 1 : 0);
}

bool isAtStart(const WalkState& state, const Position& position) noexcept {
    return position.stackPointer == state.start[platform::Rsp] &&
           position.instructionPointer == state.start[platform::Rip];
}

CallSite callSite(const WalkState& state, std::uint64_t address) noexcept {
    return state.mayCallSystem ? callSiteAt(state.tables.space, address) : CallSite::Unreadable;
}

/// Of a thread that is looked at from outside: no context of a held one lacks it.
bool lacksFramePointer(const WalkState& state) noexcept {
    return !state.knowsFramePointer &&
           (state.knownRegisters & platform::registerBit(platform::Rbp)) == 0;
}

StepResult applyRule(CompiledRule rule, WalkState& state, StackWords& words,
                     Position& position) noexcept {
    if (!rule.hasCaller()) {
        return StepResult::EndOfStack;
    }
    if (rule.usesFramePointer() && !state.knowsFramePointer) {
        return StepResult::UnknownRegister;
    }
    const std::uint64_t base =
        rule.usesFramePointer() ? position.framePointer : position.stackPointer;
    const std::uint64_t cfa = base + rule.cfaOffset();
    // Upward, as pages are asked for.
    std::uint64_t saved = 0;
    if (!words.read(cfa - rule.framePointerDistance(), saved) ||
        !words.read(cfa - 8, position.instructionPointer)) {
        return StepResult::Unreadable;
    }
    if (rule.savesFramePointer()) {
        position.framePointer = saved;
        state.knowsFramePointer = true;
    }
    position.stackPointer = cfa;
    state.atReturnAddress = true;
    return StepResult::Made;
}

/// `rule` becomes the rule that does the same; empty if there is none.
StepResult applyTables(std::uint64_t address, WalkState& state, StackWords& words,
                       Position& position, CompiledRule& rule) noexcept {
    RegisterFile& registers = state.registers;
    if (isAtStart(state, position)) {
        loadStart(state);
    } else if (state.stackPointerOfRegisters != position.stackPointer) {
        registers.forgetAll();
    }
    registers.set(platform::Rip, position.instructionPointer);
    registers.set(platform::Rsp, position.stackPointer);
    if (state.knowsFramePointer) {
        registers.set(platform::Rbp, position.framePointer);
    }
    const TableStep step = stepByTables(state.module, address, state.tables, registers, words);
    rule = step.rule;
    position.instructionPointer = registers[platform::Rip];
    position.stackPointer = registers[platform::Rsp];
    position.framePointer = registers[platform::Rbp];
    state.stackPointerOfRegisters = position.stackPointer;
    state.knowsFramePointer = registers.has(platform::Rbp);
    state.atReturnAddress = !step.isSignalFrame;
    return step.result;
}

[[gnu::noinline]] StepResult stepByRuleOrTables(RuleCache& cache, bool usesRules, WalkState& state,
                                                StackWords& words, Position& position) noexcept {
    const std::uint64_t address = lookupAddress(position, state.atReturnAddress);
    if (!state.atReturnAddress && state.knowsFramePointer) {
        state.interrupted = {position.instructionPointer, position.stackPointer,
                             position.framePointer};
    }
    bool isTrue = !state.atReturnAddress || isAtStart(state, position);
    if (!covers(state.module, address) && !enterModule(state, address)) {
        isTrue = isTrue || callSite(state, position.instructionPointer) == CallSite::Behind;
        return isTrue ? StepResult::NoUnwindData : StepResult::NotReturnedTo;
    }
    const RuleCache::Key key = keyOf(state, address);
    const RuleCache::Slot previous = std::exchange(position.previous, RuleCache::noSlot);
    CompiledRule rule;
    RuleCache::Slot slot = RuleCache::noSlot;
    StepResult result = StepResult::Made;
    const bool isKnown =
        key.identity != RuleCache::noIdentity && cache.search(key, rule, slot, position.predicted);
    if (isKnown && usesRules && !rule.needsTables()) {
        result = applyRule(rule, state, words, position);
    } else {
        const CallSite site =
            isTrue || isKnown ? CallSite::Behind : callSite(state, position.instructionPointer);
        result = applyTables(address, state, words, position, rule);
        isTrue = site == CallSite::Behind || result == StepResult::EndOfStack ||
                 (result == StepResult::Made && !state.atReturnAddress);
        if (!isTrue && (site == CallSite::NotBehind || result == StepResult::NoUnwindData)) {
            return StepResult::NotReturnedTo;
        }
        if (!rule && result == StepResult::Made) {
            rule = CompiledRule::byTables();
        }
        if (!isKnown) {
            const bool isKept = isTrue && rule && key.identity != RuleCache::noIdentity;
            slot = isKept ? cache.store(key, rule) : RuleCache::noSlot;
        }
    }
    if (usesRules && slot != RuleCache::noSlot && previous != RuleCache::noSlot) {
        cache.predict(previous, slot);
    }
    position.previous = slot;
    const bool isSteady = usesRules && state.knowsFramePointer && state.atReturnAddress &&
                          words.covers(position.stackPointer, position.stackPointer);
    position.identity = isSteady ? orNone(state.module.identity) : RuleCache::noIdentity;
    return result;
}

}  // namespace

bool enterModule(WalkState& state, std::uint64_t address) noexcept {
    if (!state.tables.space.findModule(address, state.module, state.mayCallSystem)) {
        state.module = {};
        return false;
    }
    return true;
}

std::uint64_t identityOfModule(WalkState& state, std::uint64_t address) noexcept {
    return enterModule(state, address) ? orNone(state.module.identity) : RuleCache::noIdentity;
}

void loadStart(WalkState& state) noexcept {
    state.registers = RegisterFile(state.start, state.knownRegisters);
    state.stackPointerOfRegisters = state.start[platform::Rsp];
}

// The return addresses in the cache are true ones: behind a call, or where a signal handler or
// a thread's first function is made to return to, as the tables have it. So a walk by cached
// rules checks none, and any other checks those that are new to the cache.
StepResult stepInFull(RuleCache& cache, bool usesRules, WalkState& state, StackWords& words,
                      Position& position) noexcept {
    const Position before = position;
    const bool atReturnAddress = state.atReturnAddress;
    const StepResult result = stepByRuleOrTables(cache, usesRules, state, words, position);
    if (result != StepResult::UnknownRegister || !lacksFramePointer(state)) [[likely]] {
        return result;
    }
    if (!atReturnAddress && !isBehindSystemCall(state.tables.space, before.instructionPointer)) {
        return result;  // the function may be about to return, its frame half gone
    }
    position = before;
    state.atReturnAddress = atReturnAddress;
    state.knowsFramePointer =
        recoverFramePointer(state.module, lookupAddress(before, atReturnAddress),
                            before.stackPointer, state.tables, words, position.framePointer);
    return state.knowsFramePointer ? stepByRuleOrTables(cache, usesRules, state, words, position)
                                   : result;
}

bool stepByCodeFrom(const WalkState::Interrupted& from, WalkState& state, StackWords& words,
                    Position& position) noexcept {
    // What is found may be a stale word, as for `returnTo`.
    if (state.tables.copies == nullptr || !state.mayCallSystem) {
        state.lacksCopies = state.mayCallSystem;
        return false;
    }
    CalledFrame caller;
    if (!enterModule(state, from.instructionPointer) ||
        !findCallerByCode(state.module, from.instructionPointer, from.stackPointer,
                          from.framePointer, state.tables, words, caller)) {
        return false;
    }
    position = {};
    position.instructionPointer = caller.returnAddress;
    position.stackPointer = caller.stackPointer;
    position.framePointer = caller.framePointer;
    state.knowsFramePointer = true;
    state.stackPointerOfRegisters = 0;
    state.atReturnAddress = true;
    return true;
}

bool isReturnAddress(const RuleCache& cache, WalkState& state, std::uint64_t address) noexcept {
    if (!state.atReturnAddress) {
        return true;
    }
    const bool inModule = covers(state.module, address - 1) || enterModule(state, address - 1);
    CompiledRule rule;
    RuleCache::Slot slot = RuleCache::noSlot;
    RuleCache::Slot next = RuleCache::noSlot;
    const RuleCache::Key key = keyOf(state, address - 1);
    if (inModule && key.identity != RuleCache::noIdentity && cache.search(key, rule, slot, next)) {
        return true;
    }
    const CallSite site = callSite(state, address);
    if (site == CallSite::Behind || !inModule) {
        return site == CallSite::Behind;
    }
    TableRow found;
    if (findTableRow(state.module, address - 1, state.tables, found) != StepResult::Made) {
        return false;
    }
    return site == CallSite::Unreadable || found.isSignalFrame || found.hasNoCaller();
}

}  // namespace ThreadUtilities::cfi
