// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// The debug information of one ELF module, asked for many addresses in rising order.

#include <elfutils/libdwfl.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "symbols/symbols.h"

namespace ThreadUtilities::companion {

/// Gives a text that lives as long as the names do.
using KeepText = std::function<std::string_view(std::string)>;

class DebugInformation {
 public:
    /// Opens the module's file and finds its debug information: in it, beside it, below
    /// `debugFolders`, in the system's folder, from a server. `isOpen` says how that went.
    DebugInformation(const std::filesystem::path& file,
                     const std::vector<std::filesystem::path>& debugFolders, bool shortNames,
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
    struct Range {
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
        std::uint32_t index = 0;
    };
    /// Of ranges with one beginning, in the order in which they were found.
    static bool comesBefore(const Range& left, const Range& right) {
        return left.begin != right.begin ? left.begin < right.begin : left.index < right.index;
    }
    using Ranges = std::vector<Range>;

    /// An inlined function, or the function itself, in the order of a walk through its entries.
    struct Scope {
        Dwarf_Die die = {};
        std::uint32_t parent = 0;
    };
    struct FunctionScopes {
        Dwarf_Die die = {};
        bool isRead = false;
        std::vector<Scope> scopes;
        /// Of the inlined functions; inner ones behind the outer ones.
        Ranges ranges;
    };
    struct Unit {
        Dwarf_Die die = {};
        bool isRead = false;
        std::vector<FunctionScopes> functions;
        Ranges functionRanges;
    };
    struct Symbol {
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
        const char* name = nullptr;
        bool isFunction = false;
        bool isGlobal = false;
    };

    void readUnits();
    void readSymbols();
    void readFunctions(Unit& unit);
    void addFunctions(Unit& unit, Dwarf_Die& parent, int depth);
    void readScopes(FunctionScopes& function);
    void addScopes(FunctionScopes& function, Dwarf_Die& parent, std::uint32_t parentScope,
                   int depth);
    static void addRanges(Dwarf_Die& die, std::uint32_t index, Ranges& ranges);
    static const Range* find(const Ranges& ranges, std::uint64_t address);

    bool nameFromUnit(std::uint64_t address, std::uint64_t symbolAddress, FrameName& name);
    std::string_view functionName(Dwarf_Die& die, std::uint64_t symbolAddress);
    std::string_view readable(const char* mangled);
    std::string_view fileName(Unit& unit, const char* name);
    const Symbol* symbolAt(std::uint64_t address);

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
    std::vector<Unit> units;
    Ranges unitRanges;
    std::vector<Symbol> symbols;
    std::unordered_map<const char*, std::string_view> knownNames;
    std::unordered_map<const char*, std::string_view> knownFiles;
};

}  // namespace ThreadUtilities::companion
