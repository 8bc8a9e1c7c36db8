// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/called_frame.h"

#include <cstdint>

#include "platform/code_modules.h"
#include "platform/thread_context.h"
#include "unwind/call_site.h"
#include "unwind/register_file.h"
#include "unwind/table_step.h"

namespace ThreadUtilities::cfi {

Calls callsFunction(const AddressSpace& space, std::uint64_t returnAddress,
                    std::uint64_t functionBegin) noexcept {
    const CallTarget call = callBefore(space, returnAddress);
    if (call.site != CallSite::Behind) {
        return Calls::Another;
    }
    if (!call.isNamed) {
        return Calls::Unnamed;
    }
    // It may go to the instruction behind the mark of an entry that indirect branches may use.
    constexpr std::uint64_t markSize = 4;  // endbr64
    const bool isEntry = call.target == functionBegin || call.target == functionBegin + markSize;
    return isEntry ? Calls::This : Calls::Another;
}

bool leadsOn(const CalledFrame& frame, const TableSource& source, StackWords& words) noexcept {
    platform::CodeModule module;
    if (!source.space.findModule(frame.returnAddress - 1, module, true)) {
        return false;
    }
    RegisterFile registers;
    registers.set(platform::Rip, frame.returnAddress);
    registers.set(platform::Rsp, frame.stackPointer);
    registers.set(platform::Rbp, frame.framePointer);
    const TableStep step = stepByTables(module, frame.returnAddress - 1, source, registers, words);
    return step.result == StepResult::EndOfStack ||
           (step.result == StepResult::Made && registers[platform::Rsp] > frame.stackPointer &&
            (step.isSignalFrame ||
             callSiteAt(source.space, registers[platform::Rip]) == CallSite::Behind));
}

}  // namespace ThreadUtilities::cfi
