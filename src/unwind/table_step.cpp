// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/table_step.h"
#include <cstdint>

#include "unwind/apply_row.h"
#include "unwind/cfa_program.h"
#include "unwind/eh_frame.h"

namespace ThreadUtilities::cfi {
namespace {

TableReader readerOf(const platform::CodeModule& module, const TableSource& source) noexcept {
    const AddressSpace& space = source.space;
    if (source.copies != nullptr && !module.isPermanent) {
        return {space, *source.copies};
    }
    const TableBytes headerBytes = space.tablesAround(module, module.unwindHeader);
    const TableReader header(space, headerBytes, {});
    const std::uint64_t frames = framesOfHeader(header, module.unwindHeader);
    return {space, headerBytes, space.tablesAround(module, frames)};
}

StepResult lookUpFde(const platform::CodeModule& module, std::uint64_t address,
                     const TableSource& source, Fde& fde) noexcept {
    if (module.unwindHeader == 0) {
        return StepResult::NoUnwindData;
    }
    const TableReader reader = readerOf(module, source);
    const std::uint64_t frames = framesOfHeader(reader, module.unwindHeader);
    switch (findFde(reader, module.unwindHeader, frames, address, fde)) {
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
                                          const TableSource& source, TableRow& found) noexcept {
    Fde fde;
    if (const StepResult result = lookUpFde(module, address, source, fde);
        result != StepResult::Made) {
        return result;
    }
    if (!rowAt(fde, address, found.row)) {
        return StepResult::Unreadable;
    }
    found.returnAddressColumn = fde.returnAddressColumn;
    found.tableEnd = fde.tableEnd;
    found.isSignalFrame = fde.isSignalFrame;
    return StepResult::Made;
}

bool findFunction(const platform::CodeModule& module, std::uint64_t address,
                  const TableSource& source, FunctionCode& function) noexcept {
    Fde fde;
    if (lookUpFde(module, address, source, fde) != StepResult::Made) {
        return false;
    }
    function = {fde.codeBegin, fde.codeEnd};
    return true;
}

TableStep stepByTables(const platform::CodeModule& module, std::uint64_t address,
                       const TableSource& source, RegisterFile& registers,
                       StackWords& words) noexcept {
    TableStep step;
    TableRow found;
    step.result = findTableRow(module, address, source, found);
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
