// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>
#include "platform/code_modules.h"
#include "unwind/compiled_rule.h"
#include "unwind/register_file.h"
#include "unwind/stack_words.h"
#include "unwind/table_reader.h"
#include "unwind/unwind_row.h"
#include "unwind/walk.h"

namespace ThreadUtilities::cfi {

/// A row with what it takes to apply it.
struct TableRow {
    UnwindRow row;
    std::uint64_t returnAddressColumn = 0;
    const std::uint8_t* tableEnd = nullptr;  ///< bounds the expressions of the row
    bool isSignalFrame = false;

    bool hasNoCaller() const noexcept {
        return row.registers[returnAddressColumn].kind() == RegisterRule::Kind::Undefined;
    }
};

/// What the tables of `module` say of `address`: `Made` when they have a row for it. Where
/// tables are read through copies, what is found points into these.
/// Context: target stopped, or signal handler; no allocation, no lock, no log.
StepResult findTableRow(const platform::CodeModule& module, std::uint64_t address,
                        const TableSource& source, TableRow& found) noexcept;

/// [begin, end) of a function, as the tables have it.
struct FunctionCode {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
};

/// The function of `module` that covers `address`.
/// Context: as `findTableRow`.
bool findFunction(const platform::CodeModule& module, std::uint64_t address,
                  const TableSource& source, FunctionCode& function) noexcept;

struct TableStep {
    StepResult result = StepResult::Made;
    bool isSignalFrame = false;
    CompiledRule rule;  ///< that would have done the same; empty when there is none
};

/// One frame outward from `registers` by the tables of `module`, which covers `address`: the
/// address to look up, which is one byte before a return address. Takes some hundred nanoseconds.
/// Context: target stopped, or signal handler; no allocation, no lock, no log.
TableStep stepByTables(const platform::CodeModule& module, std::uint64_t address,
                       const TableSource& source, RegisterFile& registers,
                       StackWords& words) noexcept;

}  // namespace ThreadUtilities::cfi
