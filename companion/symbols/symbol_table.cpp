// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "symbols/symbol_table.h"

#include <gelf.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace ThreadUtilities::companion {
namespace {

/// Of several names for one place the one with a size wins, then one that others may call, then the
/// shortest: those that a library adds for itself have more underscores.
bool comesBefore(const Symbol& left, const Symbol& right) {
    if (left.begin != right.begin || left.end != right.end) {
        return left.begin != right.begin ? left.begin < right.begin : left.end > right.end;
    }
    if (left.isFunction != right.isFunction) {
        return left.isFunction;
    }
    if (left.isGlobal != right.isGlobal) {
        return left.isGlobal;
    }
    const std::string_view leftName = left.name;
    const std::string_view rightName = right.name;
    return leftName.size() != rightName.size() ? leftName.size() < rightName.size()
                                               : leftName < rightName;
}

}  // namespace

void SymbolTable::read(Dwfl_Module* module) {
    const int count = dwfl_module_getsymtab(module);
    for (int index = 1; index < count; ++index) {
        GElf_Sym symbol;
        GElf_Addr address = 0;
        GElf_Word section = SHN_UNDEF;
        const char* const name =
            dwfl_module_getsym_info(module, index, &symbol, &address, &section, nullptr, nullptr);
        const int type = GELF_ST_TYPE(symbol.st_info);
        const bool isCode = type == STT_FUNC || type == STT_GNU_IFUNC || type == STT_NOTYPE;
        if (name != nullptr && name[0] != '\0' && isCode && section != SHN_UNDEF) {
            symbols.push_back({address,
                               address + symbol.st_size,
                               name,
                               type != STT_NOTYPE,
                               GELF_ST_BIND(symbol.st_info) != STB_LOCAL,
                               {}});
        }
    }
    std::sort(symbols.begin(), symbols.end(), comesBefore);
    symbols.erase(std::unique(symbols.begin(), symbols.end(),
                              [](const Symbol& left, const Symbol& right) {
                                  return left.begin == right.begin;
                              }),
                  symbols.end());
    // Marks inside of a function, as link-time optimisation leaves them, are none of their own.
    std::uint64_t functionEnd = 0;
    std::erase_if(symbols, [&](const Symbol& symbol) {
        functionEnd = symbol.isFunction ? std::max(functionEnd, symbol.end) : functionEnd;
        return !symbol.isFunction && symbol.begin < functionEnd;
    });
    for (std::size_t index = 0; index < symbols.size(); ++index) {
        // Hand-written code often has no size; it goes on to the next symbol.
        if (symbols[index].end == symbols[index].begin && index + 1 < symbols.size()) {
            symbols[index].end = symbols[index + 1].begin;
        }
    }
}

Symbol* SymbolTable::at(std::uint64_t address) {
    auto symbol = std::upper_bound(
        symbols.begin(), symbols.end(), address,
        [](std::uint64_t value, const Symbol& other) { return value < other.begin; });
    if (symbol == symbols.begin()) {
        return nullptr;
    }
    --symbol;
    return address < symbol->end ? &*symbol : nullptr;
}

}  // namespace ThreadUtilities::companion
