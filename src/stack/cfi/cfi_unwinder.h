#pragma once

#include <cstdint>
#include <optional>

#include "platform/code_modules.h"
#include "platform/thread_context.h"
#include "stack/cfi/compiled_rule.h"
#include "stack/cfi/register_file.h"
#include "stack/cfi/rule_cache.h"
#include "stack/cfi/table_step.h"
#include "stack/frame_walk.h"
#include "stack/stack_words.h"

namespace ThreadUtilities::cfi {

/// What a walk knows beyond the registers that every step uses.
struct WalkMemory {
    RegisterFile registers;  ///< as of the last step by tables
    platform::CodeModule module;
};

/// The unwinder that `walkStack` drives.
///
/// Most steps are made with a rule out of the cache and touch three registers only; the others go
/// by the tables. The three are members of their own, apart from `WalkMemory`, because nothing
/// takes the address of this object and therefore the loop can keep them in processor registers.
class CfiUnwinder {
 public:
    enum class Keeps {
        FramePointer,  ///< and the stack pointer; the other registers are lost by cached rules
        AllRegisters,  ///< every step goes by the tables
    };

    CfiUnwinder(const platform::ThreadContext& start, RuleCache& ruleCache, Keeps keeps,
                WalkMemory& walkMemory) noexcept
        : cache(ruleCache),
          memory(walkMemory),
          usesCache(keeps == Keeps::FramePointer),
          instructionPointer(start.registers[platform::Rip]),
          stack(start.registers[platform::Rsp]),
          frame(start.registers[platform::Rbp]),
          knowsFrame((start.knownRegisters & platform::registerBit(platform::Rbp)) != 0),
          predicted(RuleCache::slotOf(instructionPointer)) {
        memory.registers = RegisterFile(start.registers, start.knownRegisters);
    }

    std::uint64_t programCounter() const noexcept { return instructionPointer; }
    std::uint64_t stackPointer() const noexcept { return stack; }

    void returnTo(std::uint64_t address, std::uint64_t stackPointer) noexcept {
        instructionPointer = address;
        stack = stackPointer;
        beforeReturn = 1;
        previous = noSlot;
    }

    std::optional<WalkEnd> step(StackWords& words) noexcept {
        // A return address may be the first of the next function, or of another row, when the
        // call does not return; the call itself lies before it. Where the thread stands, and
        // where a signal struck, is looked up as it is.
        const std::uint64_t address = instructionPointer - beforeReturn;
        if (address - memory.module.begin >= memory.module.end - memory.module.begin &&
            !platform::findCodeModule(address, memory.module)) {
            memory.module = {};
            return WalkEnd::NoUnwindData;
        }
        if (usesCache && memory.module.identity != 0) {
            if (const CompiledRule rule = findRule({address, memory.module.identity})) {
                return apply(rule, words);
            }
        }
        return stepOutOfCache(address, words);
    }

 private:
    static constexpr RuleCache::Slot noSlot = ~RuleCache::Slot{0};

    CompiledRule findRule(RuleCache::Key key) noexcept {
        RuleCache::Slot next = 0;
        RuleCache::Slot slot = predicted;
        CompiledRule rule = cache.find(slot, key, next);
        if (!rule) {
            slot = RuleCache::slotOf(key.address);
            rule = cache.find(slot, key, next);
            if (!rule) {
                return rule;
            }
            foundAt(slot);
        }
        previous = slot;
        predicted = next;
        return rule;
    }

    /// The entry of an address stands in `slot`, where its callee's entry did not expect it.
    void foundAt(RuleCache::Slot slot) noexcept {
        if (previous != noSlot) {
            cache.predict(previous, slot);
        }
    }

    std::optional<WalkEnd> apply(CompiledRule rule, StackWords& words) noexcept {
        if (rule.isEndOfStack()) {
            return WalkEnd::EndOfStack;
        }
        if (rule.usesFramePointer() && !knowsFrame) {
            return WalkEnd::UnknownRegister;
        }
        const std::uint64_t base = rule.usesFramePointer() ? frame : stack;
        const std::uint64_t frameAddress = base + rule.frameAddressOffset();
        const std::uint64_t frameSlot = frameAddress - rule.framePointerDistance();
        std::uint64_t returnAddress = 0;
        std::uint64_t savedFrame = 0;
        if (frameSlot < frameAddress && words.covers(frameSlot, frameAddress)) {
            returnAddress = words.load(frameAddress - 8);
            savedFrame = words.load(frameSlot);
        } else if (!words.read(frameAddress - 8, returnAddress) ||
                   !words.read(frameSlot, savedFrame)) {
            return WalkEnd::Unreadable;
        }
        frame = rule.savesFramePointer() ? savedFrame : frame;
        knowsFrame = knowsFrame || rule.savesFramePointer();
        instructionPointer = returnAddress;
        stack = frameAddress;
        beforeReturn = 1;
        lostOthers = true;
        return std::nullopt;
    }

    std::optional<WalkEnd> stepOutOfCache(std::uint64_t address, StackWords& words) noexcept {
        RegisterFile& registers = memory.registers;
        if (lostOthers) {
            registers.forgetAll();
            lostOthers = false;
        }
        registers.set(platform::Rip, instructionPointer);
        registers.set(platform::Rsp, stack);
        if (knowsFrame) {
            registers.set(platform::Rbp, frame);
        }
        const TableStep step = stepByTables(memory.module, address, registers, words);
        if (step.end && !step.rule) {
            return step.end;
        }
        remember(address, step.rule);
        if (step.end) {
            return step.end;
        }
        instructionPointer = registers[platform::Rip];
        stack = registers[platform::Rsp];
        frame = registers[platform::Rbp];
        knowsFrame = registers.has(platform::Rbp);
        beforeReturn = step.isSignalFrame ? 0 : 1;
        return std::nullopt;
    }

    void remember(std::uint64_t address, CompiledRule rule) noexcept {
        const RuleCache::Slot slot = RuleCache::slotOf(address);
        if (rule && memory.module.identity != 0) {
            cache.store(slot, {address, memory.module.identity}, rule);
            foundAt(slot);
            previous = slot;
        } else {
            previous = noSlot;
        }
        predicted = slot;  // some slot: nothing is known of what follows
    }

    RuleCache& cache;
    WalkMemory& memory;
    const bool usesCache;
    std::uint64_t instructionPointer;
    std::uint64_t stack;
    std::uint64_t frame;
    bool knowsFrame;
    bool lostOthers = false;            ///< what `memory.registers` holds is of an inner frame
    std::uint64_t beforeReturn = 0;     ///< from the instruction pointer back to what is looked up
    RuleCache::Slot predicted;          ///< where the rule of this frame is expected
    RuleCache::Slot previous = noSlot;  ///< where the rule of the last frame was found
};

}  // namespace ThreadUtilities::cfi
