// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// The functions of a module's debug information, and what was inlined into them. Read when an
/// address in them is asked for.

#include <elfutils/libdw.h>

#include <cstdint>
#include <string_view>
#include <vector>

#include "symbols/address_ranges.h"

namespace ThreadUtilities::companion {

/// An inlined function, or the function itself.
struct DwarfScope {
    Dwarf_Die die = {};
    std::uint32_t parent = 0;
    /// For who has found it out.
    std::string_view name;
    bool hasMangledName = false;
};

struct DwarfFunction {
    /// The innermost scope with the address; 0 is the function itself.
    std::uint32_t scopeAt(std::uint64_t address) const;

    bool isRead = false;
    /// In the order of a walk through the entries.
    std::vector<DwarfScope> scopes;
    /// Of the inlined functions; inner ones behind the outer ones.
    AddressRanges ranges;
};

struct DwarfUnit {
    /// Null for code in assembly language.
    DwarfFunction* functionAt(std::uint64_t address);

    Dwarf_Die die = {};
    bool isRead = false;
    std::vector<DwarfFunction> functions;
    AddressRanges functionRanges;
};

class DwarfUnits {
 public:
    DwarfUnits() = default;
    /// Null: no debug information.
    explicit DwarfUnits(Dwarf* dwarf);

    /// Null for code without debug information.
    DwarfUnit* at(std::uint64_t address);

 private:
    std::vector<DwarfUnit> units;
    AddressRanges unitRanges;
};

}  // namespace ThreadUtilities::companion
