// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/code_depth.h"

#include <cstddef>
#include <cstdint>
#include <optional>

#include "foundation/checked_bytes.h"
#include "unwind/instruction.h"
#include "unwind/stack_effect.h"
#include "unwind/table_step.h"

namespace ThreadUtilities::cfi {
namespace {

using Kind = StackEffect::Kind;

constexpr std::uint64_t mostCode = 1024;
constexpr int mostPasses = 4;

/// A function's instructions in the order in which they lie, copied a piece at a time.
class CodeReader {
 public:
    CodeReader(const AddressSpace& addressSpace, std::uint64_t functionBegin) noexcept
        : space(addressSpace), begin(functionBegin) {}

    /// Bytes from the function's entry to the next instruction.
    std::uint64_t position() const noexcept { return pieceBegin + piece.position(); }

    std::optional<Instruction> next() noexcept {
        constexpr std::size_t longestInstruction = 15;
        if (piece.remaining() < longestInstruction) {
            pieceBegin = position();
            piece = ByteCursor(bytes, space.read(begin + pieceBegin, bytes, sizeof(bytes)));
        }
        return readInstruction(piece);
    }

 private:
    const AddressSpace& space;
    const std::uint64_t begin;
    std::uint64_t pieceBegin = 0;
    std::uint8_t bytes[128];
    ByteCursor piece;
};

/// The depths along the ways through a function, gathered in passes over its code in the order in
/// which it lies. Another pass knows the ways that lead back, too.
class DepthFlow {
 public:
    void startPass() noexcept {
        isReached = true;
        depth = 0;
        hasNewBranches = false;
    }

    /// Takes in the ways that lead to the instruction at `position`. False where they do not agree.
    bool arriveAt(std::uint64_t position) noexcept {
        for (std::size_t index = 0; index < branchCount; ++index) {
            const Branch& branch = branches[index];
            if (branch.target == position) {
                if (isReached && branch.depth != depth) {
                    return false;
                }
                isReached = true;
                depth = branch.depth;
            }
        }
        return true;
    }

    bool learnsMore() const noexcept { return hasNewBranches; }

    /// False where nothing can be said any more. `end` is where the instruction ends, which
    /// `target` is the same as where it does not name where it goes.
    bool apply(const StackEffect& effect, std::uint64_t end, std::uint64_t target) noexcept {
        if (!isReached) {
            return true;
        }
        switch (effect.kind) {
            case Kind::None:
                return true;
            case Kind::PushesFrame:
                if (savedFrameDepth == 0 || savedFrameDepth > depth) {
                    savedFrameDepth = depth + wordSize;
                }
                [[fallthrough]];
            case Kind::MovesStack:
            case Kind::PopsFrame:
                depth -= effect.bytes;
                return depth >= 0 && depth <= mostDepth;
            case Kind::SetsFrame:
            case Kind::ChangesFrame:
                return hasSavedFrame();
            case Kind::Branches:
                return branchTo(target, end);
            case Kind::Leaves:
                isReached = false;
                return branchTo(target, end);
            case Kind::AlignsStack:
            case Kind::Unknown:
                break;
        }
        return false;
    }

    std::optional<StackDepth> result() const noexcept {
        if (!isReached) {
            return std::nullopt;
        }
        const auto bytes = static_cast<std::uint64_t>(depth);
        const auto saved = static_cast<std::uint64_t>(savedFrameDepth);
        return StackDepth{bytes, hasSavedFrame() ? saved : 0};
    }

 private:
    static constexpr std::int32_t wordSize = 8;
    static constexpr std::int64_t mostDepth = 1 << 20;
    static constexpr std::size_t mostBranches = 24;

    struct Branch {
        std::uint32_t target;
        std::int32_t depth;
    };

    bool hasSavedFrame() const noexcept { return savedFrameDepth != 0 && savedFrameDepth <= depth; }

    bool branchTo(std::uint64_t target, std::uint64_t end) noexcept {
        if (target == end || target >= mostCode) {
            return true;
        }
        for (std::size_t index = 0; index < branchCount; ++index) {
            if (branches[index].target == target) {
                return branches[index].depth == depth;
            }
        }
        if (branchCount == mostBranches) {
            return false;
        }
        branches[branchCount++] = {static_cast<std::uint32_t>(target),
                                   static_cast<std::int32_t>(depth)};
        hasNewBranches = true;
        return true;
    }

    bool isReached = true;
    bool hasNewBranches = true;
    std::int64_t depth = 0;
    std::int64_t savedFrameDepth = 0;
    std::size_t branchCount = 0;
    Branch branches[mostBranches];
};

// Calls return to the next instruction: for them that is the target.
std::uint64_t targetOf(const Instruction& instruction, std::uint64_t end) noexcept {
    constexpr std::uint8_t callRelative = 0xE8;
    const bool isRelative = !instruction.hasModRm && !instruction.is(callRelative);
    return isRelative ? end + static_cast<std::uint64_t>(instruction.immediate) : end;
}

}  // namespace

std::optional<StackDepth> findStackDepth(const AddressSpace& space, const FunctionCode& function,
                                         std::uint64_t address) noexcept {
    const std::uint64_t length = function.end - function.begin;
    const std::uint64_t wanted = address - function.begin;
    if (length > mostCode || wanted >= length) {
        return std::nullopt;
    }
    DepthFlow flow;
    for (int pass = 0; pass < mostPasses && flow.learnsMore(); ++pass) {
        CodeReader code(space, function.begin);
        flow.startPass();
        while (code.position() < length) {
            if (!flow.arriveAt(code.position())) {
                return std::nullopt;
            }
            if (code.position() == wanted && flow.result()) {
                return flow.result();
            }
            const std::optional<Instruction> instruction = code.next();
            const std::uint64_t end = code.position();
            if (!instruction ||
                !flow.apply(stackEffectOf(*instruction), end, targetOf(*instruction, end))) {
                return std::nullopt;
            }
        }
    }
    return std::nullopt;
}

// Why what is found is the caller: the depth holds on every way that was followed, and on the
// others if the function keeps to one depth for each instruction, as code must that is to find its
// return address again. Whoever breaks that would have to leave, at the wrong depth, the address
// behind another call of the same function.
[[gnu::noinline]] bool findCallerByCode(const platform::CodeModule& module, std::uint64_t address,
                                        std::uint64_t stackPointer, std::uint64_t framePointer,
                                        const TableSource& source, StackWords& words,
                                        CalledFrame& caller) noexcept {
    FunctionCode function;
    if (!findFunction(module, address, source, function)) {
        return false;
    }
    const auto place = findStackDepth(source.space, function, address);
    if (!place) {
        return false;
    }
    caller.framePointer = framePointer;
    caller.stackPointer = stackPointer + place->depth + 8;
    const std::uint64_t saved = stackPointer + place->depth - place->savedFrame;
    return (place->savedFrame == 0 || words.read(saved, caller.framePointer)) &&
           words.read(stackPointer + place->depth, caller.returnAddress) &&
           callsFunction(source.space, caller.returnAddress, function.begin) == Calls::This &&
           leadsOn(caller, source, words);
}

}  // namespace ThreadUtilities::cfi
