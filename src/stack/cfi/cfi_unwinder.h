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
    bool usesCache = true;
    /// Given where the thread is not held and may unload the modules that it was in.
    TableCopies* copies = nullptr;
    platform::CodeModule module;  ///< of the frame before, most likely of this one too
    /// All registers, as the last step by tables left them.
    RegisterFile registers;
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

    CfiUnwinder(const platform::ThreadContext& start, RuleCache& ruleCache, Keeps keeps,
                TableCopies* copies, WalkMemory& walkMemory) noexcept
        : cache(ruleCache), memory(walkMemory) {
        memory.copies = copies;
        memory.usesCache = keeps == Keeps::FramePointer;
        memory.registers = RegisterFile(start.registers, start.knownRegisters);
        memory.knowsFramePointer = memory.registers.has(platform::Rbp);
        at = positionOf(memory.registers);
    }

    std::uint64_t programCounter() const noexcept { return at.instructionPointer; }
    std::uint64_t stackPointer() const noexcept { return at.stackPointer; }

    void returnTo(std::uint64_t address, std::uint64_t stackPointer) noexcept {
        at.instructionPointer = address;
        at.stackPointer = stackPointer;
        at.previous = noSlot;
        memory.callSize = 1;
        memory.registers.set(platform::Rsp, stackPointer);
    }

    StepResult step(StackWords& words) noexcept {
        const std::uint64_t address = at.instructionPointer - 1;
        if (at.isSteady && covers(memory.module, address)) [[likely]] {
            RuleCache::Slot next = 0;
            const CompiledRule rule =
                cache.find(at.predicted, {address, memory.module.identity}, next);
            const Frame frame = frameOf(rule, at);
            if (rule.leadsOut() && words.covers(frame.savedRegister, frame.address)) [[likely]] {
                const std::uint64_t saved = words.load(frame.savedRegister);
                at.framePointer = rule.savesFramePointer() ? saved : at.framePointer;
                at.instructionPointer = words.load(frame.address - 8);
                at.stackPointer = frame.address;
                at.previous = at.predicted;
                at.predicted = next;
                return StepResult::Made;
            }
        }
        Position position = at;
        const StepResult result = stepSlowly(cache, memory, words, position);
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
        /// The instruction pointer is a return address and the frame pointer known.
        bool isSteady = false;
    };

    struct Frame {
        std::uint64_t address;  ///< the canonical frame address
        std::uint64_t savedRegister;
    };

    static Position positionOf(const RegisterFile& registers) noexcept {
        return {.instructionPointer = registers[platform::Rip],
                .stackPointer = registers[platform::Rsp],
                .framePointer = registers[platform::Rbp]};
    }

    static Frame frameOf(CompiledRule rule, const Position& at) noexcept {
        const std::uint64_t base = rule.usesFramePointer() ? at.framePointer : at.stackPointer;
        const std::uint64_t address = base + rule.frameAddressOffset();
        return {address, address - rule.framePointerDistance()};
    }

    static bool covers(const platform::CodeModule& module, std::uint64_t address) noexcept {
        return address - module.begin < module.end - module.begin;
    }

    [[gnu::noinline]] static StepResult stepSlowly(RuleCache& cache, WalkMemory& memory,
                                                   StackWords& words, Position& position) noexcept {
        const std::uint64_t address = position.instructionPointer - memory.callSize;
        if (!enterModule(memory, address)) {
            return StepResult::NoUnwindData;
        }
        const RuleCache::Key key{address, memory.module.identity};
        const RuleCache::Slot slot = RuleCache::slotOf(address);
        const RuleCache::Slot previous = std::exchange(position.previous, noSlot);
        StepResult result = StepResult::Made;
        CompiledRule rule =
            memory.usesCache ? cache.find(slot, key, position.predicted) : CompiledRule();
        if (rule) {
            result = applyRule(rule, memory, words, position);
        } else {
            result = applyTables(address, memory, words, position, rule);
            if (rule && key.identity != 0) {
                cache.store(slot, key, rule);
            }
        }
        if (rule) {
            position.previous = slot;
            if (previous != noSlot) {
                cache.predict(previous, slot);
            }
        }
        position.isSteady = memory.usesCache && memory.knowsFramePointer && memory.callSize == 1;
        return result;
    }

    static bool enterModule(WalkMemory& memory, std::uint64_t address) noexcept {
        if (!covers(memory.module, address) &&
            !platform::findCodeModule(address, memory.copies == nullptr, memory.module)) {
            memory.module = {};
            return false;
        }
        return true;
    }

    static StepResult applyRule(CompiledRule rule, WalkMemory& memory, StackWords& words,
                                Position& position) noexcept {
        if (!rule.leadsOut()) {
            return StepResult::EndOfStack;
        }
        if (rule.usesFramePointer() && !memory.knowsFramePointer) {
            return StepResult::UnknownRegister;
        }
        const Frame frame = frameOf(rule, position);
        std::uint64_t saved = 0;
        if (!words.read(frame.address - 8, position.instructionPointer) ||
            !words.read(frame.savedRegister, saved)) {
            return StepResult::Unreadable;
        }
        if (rule.savesFramePointer()) {
            position.framePointer = saved;
            memory.knowsFramePointer = true;
        }
        position.stackPointer = frame.address;
        memory.callSize = 1;
        return StepResult::Made;
    }

    /// `rule` becomes the rule that does the same, if there is one.
    static StepResult applyTables(std::uint64_t address, WalkMemory& memory, StackWords& words,
                                  Position& position, CompiledRule& rule) noexcept {
        RegisterFile& registers = memory.registers;
        if (registers[platform::Rsp] != position.stackPointer) {
            registers.forgetAll();  // of a frame farther in
        }
        registers.set(platform::Rip, position.instructionPointer);
        registers.set(platform::Rsp, position.stackPointer);
        if (memory.knowsFramePointer) {
            registers.set(platform::Rbp, position.framePointer);
        }
        const TableStep step =
            stepByTables(memory.module, address, memory.copies, registers, words);
        rule = step.rule;
        position = positionOf(registers);
        memory.knowsFramePointer = registers.has(platform::Rbp);
        memory.callSize = step.isSignalFrame ? 0 : 1;
        return step.result;
    }

    RuleCache& cache;
    WalkMemory& memory;
    Position at;
};

}  // namespace ThreadUtilities::cfi
