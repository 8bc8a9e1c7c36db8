#pragma once

#include <cstdint>
#include <utility>
#include "platform/code_modules.h"
#include "platform/thread_context.h"
#include "stack/cfi/compiled_rule.h"
#include "stack/cfi/register_file.h"
#include "stack/cfi/rule_cache.h"
#include "stack/cfi/table_reader.h"
#include "stack/cfi/table_step.h"
#include "stack/stack_words.h"
#include "stack/walk.h"

namespace ThreadUtilities::cfi {

/// What a walk knows beyond its position.
struct WalkMemory {
    WalkMemory(const platform::Registers& startRegisters, std::uint32_t knownAtStart,
               TableCopies* tableCopies) noexcept
        : start(startRegisters), knownRegisters(knownAtStart), copies(tableCopies) {}

    const platform::Registers& start;
    const std::uint32_t knownRegisters;  ///< of `start`
    /// Given where the thread is not held and may unload the modules that it was in.
    TableCopies* const copies;

    platform::CodeModule module;  ///< of the frame before, most likely of this one too
    /// The registers of the frame whose stack pointer is `registersBelong`, for steps by tables.
    RegisterFile registers;
    std::uint64_t registersBelong = 0;
    bool knowsFramePointer = true;
    /// From the instruction pointer back to what is looked up. 1 for a return address: it may
    /// belong to the next function, or to another row, when the call does not return, whereas the
    /// call lies before it. 0 where the thread stands and where a signal struck.
    std::uint64_t callSize = 0;
};

/// The unwinder that `walkStack` drives.
///
/// Most steps are made by a cached rule, found where the frame before predicted it, and change
/// nothing but the position: `step` makes these, and leaves all others to `stepSlowly`. Nothing
/// takes the address of this object, therefore a walk keeps the position in processor registers.
class CfiUnwinder {
 public:
    enum class Keeps {
        FramePointer,  ///< and the stack pointer; cached rules lose the other registers
        AllRegisters,  ///< every step goes by the tables
    };

    /// `stack` is known to be readable, `stackShift` away from its addresses.
    CfiUnwinder(RuleCache& ruleCache, Keeps keeps, platform::ReadableRange stack,
                std::uint64_t shift, WalkMemory& walkMemory) noexcept
        : cache(ruleCache),
          memory(walkMemory),
          usesCache(keeps == Keeps::FramePointer),
          permanentIdentity(orNone(platform::permanentIdentity())),
          stackEnd(stack.end),
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

    /// Only from where the walk starts.
    void returnTo(std::uint64_t address, std::uint64_t stackPointer) noexcept {
        loadStart(memory);
        memory.registersBelong = stackPointer;
        memory.callSize = 1;
        at.instructionPointer = address;
        at.stackPointer = stackPointer;
    }

    StepResult step(StackWords& words) noexcept {
        Prediction outcome = stepByPredictedRule();
        if (outcome == Prediction::Made) [[likely]] {
            return StepResult::Made;
        }
        if (outcome == Prediction::Wrong && at.identity != RuleCache::noIdentity) {
            outcome = stepInOtherModule();
            if (outcome == Prediction::Made) {
                return StepResult::Made;
            }
        }
        if (outcome == Prediction::EndOfStack) {
            return StepResult::EndOfStack;
        }
        Position position = at;
        const StepResult result = stepSlowly(usesCache ? &cache : nullptr, memory, words, position);
        at = position;
        return result;
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
        Wrong,       ///< or not to be followed without more checks; nothing has changed
    };

    Prediction stepByPredictedRule() noexcept {
        CompiledRule rule;
        RuleCache::Slot next = 0;
        if (!cache.find(at.predicted, {at.instructionPointer - 1, at.identity}, rule, next))
            [[unlikely]] {
            return Prediction::Wrong;
        }
        std::uint64_t base = at.stackPointer;
        if (rule.usesFramePointer()) {
            if (!rule.hasCaller()) [[unlikely]] {
                return Prediction::EndOfStack;
            }
            base = at.framePointer;
            if (base < at.stackPointer || base > stackEnd) [[unlikely]] {
                return Prediction::Wrong;
            }
        }
        // The stack is readable from the base, which is at or above the stack pointer, to the end;
        // no slot lies below the base; no sum leaves 64 bits, because the end of user memory is far
        // from there.
        const std::uint64_t frameAddress = base + rule.frameAddressOffset();
        if (frameAddress > stackEnd) [[unlikely]] {
            return Prediction::Wrong;
        }
        const std::uint64_t saved =
            StackWords::load(frameAddress - rule.framePointerDistance() + stackShift);
        at.framePointer = rule.savesFramePointer() ? saved : at.framePointer;
        at.instructionPointer = StackWords::load(frameAddress - 8 + stackShift);
        at.stackPointer = frameAddress;
        at.previous = at.predicted;
        at.predicted = next;
        return Prediction::Made;
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
        if (!platform::findCodeModule(address, memory.copies == nullptr, memory.module)) {
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

    [[gnu::noinline]] static StepResult stepSlowly(RuleCache* cache, WalkMemory& memory,
                                                   StackWords& words, Position& position) noexcept {
        const std::uint64_t address = position.instructionPointer - memory.callSize;
        if (!covers(memory.module, address) && !enterModule(memory, address)) {
            return StepResult::NoUnwindData;
        }
        const RuleCache::Key key{address, orNone(memory.module.identity)};
        const RuleCache::Slot previous = std::exchange(position.previous, noSlot);
        StepResult result = StepResult::Made;
        if (cache == nullptr || key.identity == RuleCache::noIdentity) {
            CompiledRule unused;
            result = applyTables(address, memory, words, position, unused);
        } else {
            CompiledRule rule;
            RuleCache::Slot slot = noSlot;
            if (cache->search(key, rule, slot, position.predicted)) {
                result = applyRule(rule, memory, words, position);
            } else {
                result = applyTables(address, memory, words, position, rule);
                slot = rule ? cache->store(key, rule) : noSlot;
            }
            if (slot != noSlot && previous != noSlot) {
                cache->predict(previous, slot);
            }
            position.previous = slot;
        }
        const bool isSteady = cache != nullptr && memory.knowsFramePointer &&
                              memory.callSize == 1 &&
                              words.covers(position.stackPointer, position.stackPointer);
        position.identity = isSteady ? key.identity : RuleCache::noIdentity;
        return result;
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
        std::uint64_t saved = 0;
        if (!words.read(frameAddress - 8, position.instructionPointer) ||
            !words.read(frameAddress - rule.framePointerDistance(), saved)) {
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
        if (position.stackPointer == memory.start[platform::Rsp] &&
            position.instructionPointer == memory.start[platform::Rip]) {
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
    WalkMemory& memory;
    const bool usesCache;
    const std::uint64_t permanentIdentity;
    const std::uint64_t stackEnd;
    const std::uint64_t stackShift;
    Position at;
};

}  // namespace ThreadUtilities::cfi
