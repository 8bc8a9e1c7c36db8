// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/frame_pointer_recovery.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "foundation/checked_bytes.h"
#include "unwind/called_frame.h"
#include "unwind/prologue.h"
#include "unwind/table_step.h"

namespace ThreadUtilities::cfi {
namespace {

// Prologues that store their arguments before they make room are the longest.
constexpr std::size_t mostPrologue = 512;

std::optional<FramePointerPlace> placeIn(const AddressSpace& space, std::uint64_t functionBegin,
                                         std::uint64_t address) noexcept {
    std::array<std::uint8_t, mostPrologue> code;
    const std::size_t size = space.read(functionBegin, code.data(), code.size());
    return findFramePointer(ByteCursor(code.data(), size), address - functionBegin);
}

// Why what is found is the frame pointer: the prologue puts it at a fixed distance from the stack
// pointer as long as the function changes that by no more than its prologue does. If it does, the
// words at that distance are the function's own data, or left there by frames that were there
// before. Because those would have to be a return address behind a call of the same function, in
// the very place, and lead on to a frame that fits, they are not taken for the frame.
bool isFrame(std::uint64_t functionBegin, std::uint64_t candidate, const TableSource& source,
             StackWords& words) noexcept {
    std::uint64_t saved = 0;
    std::uint64_t returnAddress = 0;
    if (!words.read(candidate, saved) || !words.read(candidate + 8, returnAddress)) {
        return false;
    }
    const Calls calls = callsFunction(source.space, returnAddress, functionBegin);
    return (calls == Calls::This || calls == Calls::Unnamed) &&
           leadsOn({returnAddress, candidate + 16, saved}, source, words);
}

}  // namespace

bool recoverFramePointer(const platform::CodeModule& module, std::uint64_t address,
                         std::uint64_t stackPointer, const TableSource& source, StackWords& words,
                         std::uint64_t& framePointer) noexcept {
    FunctionCode function;
    if (!findFunction(module, address, source, function)) {
        return false;
    }
    const auto place = placeIn(source.space, function.begin, address);
    if (!place) {
        return false;
    }
    std::size_t found = 0;
    for (std::uint64_t slack = 0; slack <= place->slack; slack += 8) {
        const std::uint64_t candidate = stackPointer + place->distance + slack;
        if (isFrame(function.begin, candidate, source, words)) {
            framePointer = candidate;
            ++found;
        }
    }
    return found == 1;
}

}  // namespace ThreadUtilities::cfi
