// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// The code of a module by the names that its symbol table has.

#include <elfutils/libdwfl.h>

#include <cstdint>
#include <string_view>
#include <vector>

namespace ThreadUtilities::companion {

struct Symbol {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    const char* name = nullptr;
    bool isFunction = false;
    /// Others may call it.
    bool isGlobal = false;
    /// For who has made the name readable.
    std::string_view readableName;
};

class SymbolTable {
 public:
    /// One symbol for a place.
    void read(Dwfl_Module* module);
    /// Null where there is none.
    Symbol* at(std::uint64_t address);

 private:
    std::vector<Symbol> symbols;
};

}  // namespace ThreadUtilities::companion
