// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "symbols/dwarf_units.h"

#include <dwarf.h>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace ThreadUtilities::companion {
namespace {

/// Debug information may be damaged; no compiler nests deeper.
constexpr int deepestNesting = 512;

/// What may hold functions that have code.
bool holdsFunctions(int tag) {
    return tag == DW_TAG_namespace || tag == DW_TAG_module || tag == DW_TAG_structure_type ||
           tag == DW_TAG_class_type || tag == DW_TAG_union_type || tag == DW_TAG_enumeration_type;
}

/// What stands inside of a function and may hold inlined ones.
bool isBlock(int tag) {
    return tag == DW_TAG_lexical_block || tag == DW_TAG_try_block || tag == DW_TAG_catch_block ||
           tag == DW_TAG_with_stmt;
}

/// Calls visit(entry, context) for the entries below `parent`. Below an entry it goes where that
/// gives a context, with this.
template <typename Visit>
void forEachBelow(Dwarf_Die& parent, std::uint32_t context, const Visit& visit, int depth = 0) {
    Dwarf_Die entry;
    if (depth > deepestNesting || dwarf_child(&parent, &entry) != 0) {
        return;
    }
    do {
        if (const std::optional<std::uint32_t> inner = visit(entry, context)) {
            forEachBelow(entry, *inner, visit, depth + 1);
        }
    } while (dwarf_siblingof(&entry, &entry) == 0);
}

/// Addresses at which a linker left out the code are 0, or close to the end of all.
void addRanges(Dwarf_Die& die, std::uint32_t index, AddressRanges& ranges) {
    Dwarf_Addr base = 0;
    Dwarf_Addr begin = 0;
    Dwarf_Addr end = 0;
    for (std::ptrdiff_t next = 0; (next = dwarf_ranges(&die, next, &base, &begin, &end)) > 0;) {
        if (begin > 1 && begin < end) {
            ranges.push_back({begin, end, index});
        }
    }
}

void readFunctions(DwarfUnit& unit) {
    unit.isRead = true;
    forEachBelow(unit.die, 0, [&](Dwarf_Die& entry, std::uint32_t) -> std::optional<std::uint32_t> {
        const int tag = dwarf_tag(&entry);
        if (holdsFunctions(tag)) {
            return 0;
        }
        if (tag != DW_TAG_subprogram) {
            return std::nullopt;
        }
        const auto index = static_cast<std::uint32_t>(unit.functions.size());
        const std::size_t before = unit.functionRanges.size();
        addRanges(entry, index, unit.functionRanges);
        if (unit.functionRanges.size() == before) {
            return std::nullopt;
        }
        unit.functions.emplace_back().scopes.push_back({entry, 0, {}, false});
        // Functions of the function's own, in some languages.
        return 0;
    });
    sortRanges(unit.functionRanges);
}

void readScopes(DwarfFunction& function) {
    function.isRead = true;
    Dwarf_Die die = function.scopes.front().die;
    forEachBelow(die, 0,
                 [&](Dwarf_Die& entry, std::uint32_t parent) -> std::optional<std::uint32_t> {
                     const int tag = dwarf_tag(&entry);
                     if (isBlock(tag)) {
                         return parent;
                     }
                     if (tag != DW_TAG_inlined_subroutine) {
                         return std::nullopt;
                     }
                     const auto index = static_cast<std::uint32_t>(function.scopes.size());
                     addRanges(entry, index, function.ranges);
                     function.scopes.push_back({entry, parent, {}, false});
                     return index;
                 });
}

}  // namespace

DwarfUnits::DwarfUnits(Dwarf* dwarf) {
    if (dwarf == nullptr) {
        return;
    }
    Dwarf_CU* unit = nullptr;
    Dwarf_Die die;
    Dwarf_Die splitDie;
    std::uint8_t type = 0;
    while (dwarf_get_units(dwarf, unit, &unit, nullptr, &type, &die, &splitDie) == 0) {
        if (type == DW_UT_type || type == DW_UT_split_type || type == DW_UT_partial ||
            dwarf_tag(&die) == DW_TAG_partial_unit) {
            continue;
        }
        const auto index = static_cast<std::uint32_t>(units.size());
        const std::size_t before = unitRanges.size();
        addRanges(die, index, unitRanges);
        DwarfUnit& added = units.emplace_back();
        added.die = type == DW_UT_skeleton && splitDie.cu != nullptr ? splitDie : die;
        if (unitRanges.size() == before) {
            // A unit that does not say where its code is: its functions do.
            readFunctions(added);
            for (const AddressRange& range : added.functionRanges) {
                unitRanges.push_back({range.begin, range.end, index});
            }
        }
    }
    sortRanges(unitRanges);
}

DwarfUnit* DwarfUnits::at(std::uint64_t address) {
    const AddressRange* const range = findRange(unitRanges, address);
    if (range == nullptr) {
        return nullptr;
    }
    DwarfUnit& unit = units[range->index];
    if (!unit.isRead) {
        readFunctions(unit);
    }
    return &unit;
}

DwarfFunction* DwarfUnit::functionAt(std::uint64_t address) {
    const AddressRange* const range = findRange(functionRanges, address);
    if (range == nullptr) {
        return nullptr;
    }
    DwarfFunction& function = functions[range->index];
    if (!function.isRead) {
        readScopes(function);
    }
    return &function;
}

std::uint32_t DwarfFunction::scopeAt(std::uint64_t address) const {
    std::uint32_t scope = 0;
    for (const AddressRange& range : ranges) {
        if (range.begin <= address && address < range.end) {
            scope = range.index;
        }
    }
    return scope;
}

}  // namespace ThreadUtilities::companion
