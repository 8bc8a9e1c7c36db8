// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stack/cfi/frame_pointer_recovery.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "foundation/checked_bytes.h"
#include "platform/memory.h"
#include "platform/thread_context.h"
#include "stack/cfi/call_site.h"
#include "stack/cfi/prologue.h"
#include "stack/cfi/register_file.h"
#include "stack/cfi/table_step.h"

namespace ThreadUtilities::cfi {
namespace {

// Prologues that store their arguments before they make room are the longest.
constexpr std::size_t mostPrologue = 512;

std::optional<FramePointerPlace> placeIn(std::uint64_t functionBegin,
                                         std::uint64_t address) noexcept {
    std::array<std::uint8_t, mostPrologue> code;
    const std::size_t size = platform::readOwnMemory(functionBegin, code.data(), code.size());
    return findFramePointer(ByteCursor(code.data(), size), address - functionBegin);
}

// A call may go to the instruction behind the mark of an entry that indirect branches may use.
bool isEntry(std::uint64_t target, std::uint64_t functionBegin) noexcept {
    constexpr std::uint64_t markSize = 4;  // endbr64
    return target == functionBegin || target == functionBegin + markSize;
}

/// One frame outward from the frame whose saved frame pointer and return address are these.
bool leadsOn(std::uint64_t returnAddress, std::uint64_t stackPointer, std::uint64_t framePointer,
             TableCopies* copies, StackWords& words) noexcept {
    platform::CodeModule module;
    if (!platform::findCodeModule(returnAddress - 1, module)) {
        return false;
    }
    RegisterFile registers;
    registers.set(platform::Rip, returnAddress);
    registers.set(platform::Rsp, stackPointer);
    registers.set(platform::Rbp, framePointer);
    const TableStep step = stepByTables(module, returnAddress - 1, copies, registers, words);
    return step.result == StepResult::EndOfStack ||
           (step.result == StepResult::Made && registers[platform::Rsp] > stackPointer &&
            (step.isSignalFrame || callSiteAt(registers[platform::Rip]) == CallSite::Behind));
}

// Why what is found is the frame pointer: the prologue puts it at a fixed distance from the stack
// pointer as long as the function changes that by no more than its prologue does. If it does, the
// words at that distance are the function's own data, or left there by frames that were there
// before. Because those would have to be a return address behind a call of the same function, in
// the very place, and lead on to a frame that fits, they are not taken for the frame.
bool isFrame(std::uint64_t functionBegin, std::uint64_t candidate, TableCopies* copies,
             StackWords& words) noexcept {
    std::uint64_t saved = 0;
    std::uint64_t returnAddress = 0;
    if (!words.read(candidate, saved) || !words.read(candidate + 8, returnAddress)) {
        return false;
    }
    const CallTarget call = callBefore(returnAddress);
    if (call.site != CallSite::Behind || (call.isNamed && !isEntry(call.target, functionBegin))) {
        return false;
    }
    return leadsOn(returnAddress, candidate + 16, saved, copies, words);
}

}  // namespace

bool recoverFramePointer(const platform::CodeModule& module, std::uint64_t address,
                         std::uint64_t stackPointer, TableCopies* copies, StackWords& words,
                         std::uint64_t& framePointer) noexcept {
    std::uint64_t functionBegin = 0;
    if (!findFunction(module, address, copies, functionBegin)) {
        return false;
    }
    const auto place = placeIn(functionBegin, address);
    if (!place) {
        return false;
    }
    std::size_t found = 0;
    for (std::uint64_t slack = 0; slack <= place->slack; slack += 8) {
        const std::uint64_t candidate = stackPointer + place->distance + slack;
        if (isFrame(functionBegin, candidate, copies, words)) {
            framePointer = candidate;
            ++found;
        }
    }
    return found == 1;
}

}  // namespace ThreadUtilities::cfi
