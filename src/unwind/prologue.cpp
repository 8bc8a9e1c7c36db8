// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/prologue.h"
#include <cstdint>
#include <optional>

#include "unwind/instruction.h"
#include "unwind/stack_effect.h"

namespace ThreadUtilities::cfi {
namespace {

using Kind = StackEffect::Kind;

/// The two registers, in bytes below the stack pointer at the function's entry.
class PrologueState {
 public:
    /// False when this is no prologue that can be understood.
    bool apply(const StackEffect& effect) {
        switch (effect.kind) {
            case Kind::None:
                return true;
            case Kind::MovesStack:
            case Kind::PushesFrame:
                depth -= effect.bytes;
                return depth >= 0 && depth <= mostBytes;
            case Kind::AlignsStack:
                return align(effect.bytes);
            case Kind::SetsFrame:
                frameDepth = depth - effect.bytes;
                return slack == 0 && !frameIsSet && (frameIsSet = frameDepth >= 0);
            case Kind::Branches:
                depthAtBranch = depth;
                return true;
            case Kind::Leaves:
                depth = depthAtBranch;
                return true;
            case Kind::PopsFrame:
            case Kind::ChangesFrame:
            case Kind::Unknown:
                break;
        }
        return false;
    }

    bool hasFrame() const { return frameIsSet; }

    std::optional<FramePointerPlace> place() const {
        if (!frameIsSet || depth < frameDepth) {
            return std::nullopt;
        }
        return FramePointerPlace{static_cast<std::uint64_t>(depth - frameDepth), slack};
    }

 private:
    static constexpr std::int64_t mostBytes = 1 << 20;
    static constexpr std::int64_t mostAlignment = 4096;

    // An aligned stack pointer has been lowered by anything below the alignment. That stands
    // between it and a frame pointer which was set before. One that is set only afterwards does not
    // care: such code pushes a copy of its return address first, so that it lies above as always.
    bool align(std::int64_t alignment) {
        if (alignment < 16 || alignment > mostAlignment || (alignment & (alignment - 1)) != 0 ||
            slack != 0) {
            return false;
        }
        slack = frameIsSet ? static_cast<std::uint64_t>(alignment - 8) : 0;
        return true;
    }

    std::int64_t depth = 0;
    std::int64_t depthAtBranch = 0;
    std::int64_t frameDepth = 0;
    std::uint64_t slack = 0;
    bool frameIsSet = false;
};

}  // namespace

std::optional<FramePointerPlace> findFramePointer(ByteCursor code, std::uint64_t length) noexcept {
    PrologueState state;
    while (code.position() < length) {
        const std::optional<Instruction> instruction = readInstruction(code);
        if (!instruction) {
            return std::nullopt;
        }
        const StackEffect effect = stackEffectOf(*instruction);
        const bool branches = effect.kind == Kind::Branches || effect.kind == Kind::Leaves;
        if (branches && state.hasFrame()) {
            break;  // the prologue's end
        }
        if (!state.apply(effect)) {
            return std::nullopt;
        }
    }
    return state.place();
}

}  // namespace ThreadUtilities::cfi
