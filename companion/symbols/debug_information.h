// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// The debug information of one ELF module, asked for many addresses in rising order.

#include <elfutils/libdwfl.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "symbols/debug_files.h"
#include "symbols/dwarf_units.h"
#include "symbols/symbol_table.h"
#include "symbols/symbols.h"

namespace ThreadUtilities::companion {

/// Gives a text that lives as long as the names do.
using KeepText = std::function<std::string_view(std::string)>;

class DebugInformation {
 public:
    /// Opens the module's file and finds its debug information: in it, beside it, below the
    /// folders of `search`, in the system's folder, from a server. `isOpen` says how that went.
    DebugInformation(const std::filesystem::path& file, DebugFileSearch& search, bool shortNames,
                     KeepText keepText);
    ~DebugInformation();
    DebugInformation(const DebugInformation&) = delete;
    DebugInformation& operator=(const DebugInformation&) = delete;

    bool isOpen() const { return module != nullptr; }
    bool hasLines() const { return dwarf != nullptr; }
    /// Whether no symbols are left but those for the dynamic linker.
    bool hasOnlyDynamicSymbols() const { return isDynamicOnly; }
    std::filesystem::path debugFile() const;

    /// The name of the code at this offset from the lowest mapped address of the module.
    FrameName nameAt(std::uint64_t offset);

 private:
    bool nameFromUnit(std::uint64_t address, std::uint64_t symbolAddress, FrameName& name);
    std::string_view functionName(DwarfScope& scope, std::uint64_t symbolAddress);
    std::string_view symbolName(Symbol& symbol);
    std::string_view readable(const char* mangled);
    std::string_view fileName(DwarfUnit& unit, const char* name);

    bool isShort;
    KeepText keep;
    std::string debugFolderList;
    char* debugFolderText = nullptr;
    Dwfl_Callbacks callbacks = {};
    Dwfl* session = nullptr;
    Dwfl_Module* module = nullptr;
    Dwarf* dwarf = nullptr;
    bool isDynamicOnly = false;
    /// Added to an offset for the address in the debug information, and in the symbols.
    std::uint64_t dwarfBase = 0;
    std::uint64_t symbolBase = 0;
    DwarfUnits units;
    SymbolTable symbols;
    std::unordered_map<const char*, std::string_view> knownNames;
    std::unordered_map<const char*, std::string_view> knownFiles;
};

}  // namespace ThreadUtilities::companion
