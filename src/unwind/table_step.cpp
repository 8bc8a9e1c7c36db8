// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/table_step.h"
#include <cstdint>

#include "unwind/apply_row.h"
#include "unwind/cfa_program.h"
#include "unwind/frame_description.h"

namespace ThreadUtilities::cfi {
namespace {

TableReader readerOf(const platform::CodeModule& module, TableCopies* copies) noexcept {
    if (copies != nullptr && !module.isPermanent) {
        return TableReader(*copies);
    }
    const platform::ReadableRange headerBytes =
        platform::readableSegment(module, module.unwindHeader);
    const TableReader header(headerBytes, {});
    const std::uint64_t frames = framesOfHeader(header, module.unwindHeader);
    return {headerBytes, platform::readableSegment(module, frames)};
}

StepResult findDescription(const platform::CodeModule& module, std::uint64_t address,
                           TableCopies* copies, FrameDescription& description) noexcept {
    if (module.unwindHeader == 0) {
        return StepResult::NoUnwindData;
    }
    const TableReader reader = readerOf(module, copies);
    const std::uint64_t frames = framesOfHeader(reader, module.unwindHeader);
    switch (findFrameDescription(reader, module.unwindHeader, frames, address, description)) {
        case LookupResult::Found:
            return StepResult::Made;
        case LookupResult::NotCovered:
            return StepResult::NoUnwindData;
        case LookupResult::LongSearch:
            return StepResult::LongSearch;
        case LookupResult::Malformed:
            break;
    }
    return StepResult::Unreadable;
}

}  // namespace

// Not inlined: the memory that the search and the program take is free again when the row's
// expressions are evaluated.
[[gnu::noinline]] StepResult findTableRow(const platform::CodeModule& module, std::uint64_t address,
                                          TableCopies* copies, TableRow& found) noexcept {
    FrameDescription description;
    if (const StepResult result = findDescription(module, address, copies, description);
        result != StepResult::Made) {
        return result;
    }
    if (!rowAt(description, address, found.row)) {
        return StepResult::Unreadable;
    }
    found.returnAddressColumn = description.returnAddressColumn;
    found.tableEnd = description.tableEnd;
    found.isSignalFrame = description.isSignalFrame;
    return StepResult::Made;
}

bool findFunction(const platform::CodeModule& module, std::uint64_t address, TableCopies* copies,
                  FunctionCode& function) noexcept {
    FrameDescription description;
    if (findDescription(module, address, copies, description) != StepResult::Made) {
        return false;
    }
    function = {description.codeBegin, description.codeEnd};
    return true;
}

TableStep stepByTables(const platform::CodeModule& module, std::uint64_t address,
                       TableCopies* copies, RegisterFile& registers, StackWords& words) noexcept {
    TableStep step;
    TableRow found;
    step.result = findTableRow(module, address, copies, found);
    if (step.result != StepResult::Made) {
        return step;
    }
    step.isSignalFrame = found.isSignalFrame;
    if (!found.isSignalFrame) {
        step.rule = CompiledRule::of(found.row, found.returnAddressColumn);
    }
    step.result = applyRow(found.row, found.returnAddressColumn, found.tableEnd, registers, words);
    return step;
}

}  // namespace ThreadUtilities::cfi
