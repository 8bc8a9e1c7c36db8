// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "symbols/debug_information.h"

#include <dwarf.h>
#include <elfutils/libdw.h>
#include <gelf.h>
#include <libelf.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "symbols/function_names.h"

namespace ThreadUtilities::companion {
namespace {

constexpr std::uint64_t pageSize = 4096;

/// The lowest address that the program header maps, as the loader rounds it.
std::optional<std::uint64_t> lowestAddress(Elf* elf) {
    std::size_t count = 0;
    if (elf == nullptr || elf_getphdrnum(elf, &count) != 0) {
        return std::nullopt;
    }
    std::optional<std::uint64_t> lowest;
    for (std::size_t index = 0; index < count; ++index) {
        GElf_Phdr header;
        if (gelf_getphdr(elf, static_cast<int>(index), &header) != nullptr &&
            header.p_type == PT_LOAD && (!lowest || header.p_vaddr < *lowest)) {
            lowest = header.p_vaddr;
        }
    }
    return lowest ? std::optional(*lowest & ~(pageSize - 1)) : lowest;
}

bool hasSymbolTable(Elf* elf) {
    for (Elf_Scn* section = elf == nullptr ? nullptr : elf_nextscn(elf, nullptr);
         section != nullptr; section = elf_nextscn(elf, section)) {
        GElf_Shdr header;
        if (gelf_getshdr(section, &header) != nullptr && header.sh_type == SHT_SYMTAB) {
            return true;
        }
    }
    return false;
}

std::optional<Dwarf_Word> number(Dwarf_Die& die, unsigned int name) {
    Dwarf_Attribute attribute;
    Dwarf_Word value = 0;
    if (dwarf_attr_integrate(&die, name, &attribute) == nullptr ||
        dwarf_formudata(&attribute, &value) != 0) {
        return std::nullopt;
    }
    return value;
}

const char* text(Dwarf_Die& die, unsigned int name) {
    Dwarf_Attribute attribute;
    return dwarf_attr_integrate(&die, name, &attribute) == nullptr ? nullptr
                                                                   : dwarf_formstring(&attribute);
}

}  // namespace

DebugInformation::DebugInformation(const std::filesystem::path& file, DebugFileSearch& search,
                                   bool shortNames, KeepText keepText)
    : isShort(shortNames), keep(std::move(keepText)) {
    for (const std::filesystem::path& folder : search.folders) {
        debugFolderList += std::filesystem::absolute(folder).string() + ':';
    }
    debugFolderList += ".debug:/usr/lib/debug";
    debugFolderText = debugFolderList.data();
    callbacks.find_elf = dwfl_build_id_find_elf;
    callbacks.find_debuginfo = findDebugFile;
    callbacks.section_address = dwfl_offline_section_address;
    callbacks.debuginfo_path = &debugFolderText;
    session = dwfl_begin(&callbacks);
    if (session == nullptr) {
        return;
    }
    module = dwfl_report_offline(session, file.c_str(), file.c_str(), -1);
    dwfl_report_end(session, nullptr, nullptr);
    void** userData = nullptr;
    dwfl_module_info(module, &userData, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (userData != nullptr) {
        *userData = &search;
    }
    GElf_Addr elfBias = 0;
    Elf* const elf = module == nullptr ? nullptr : dwfl_module_getelf(module, &elfBias);
    const auto lowest = lowestAddress(elf);
    if (!lowest) {
        module = nullptr;
        return;
    }
    symbolBase = *lowest + elfBias;
    Dwarf_Addr dwarfBias = 0;
    dwarf = dwfl_module_getdwarf(module, &dwarfBias);
    dwarfBase = symbolBase - dwarfBias;
    isDynamicOnly = !hasSymbolTable(elf) && dwarf == nullptr;
    units = DwarfUnits(dwarf);
    symbols.read(module);
}

DebugInformation::~DebugInformation() {
    dwfl_end(session);
}

std::filesystem::path DebugInformation::debugFile() const {
    const char* mainFile = nullptr;
    const char* debugFile = nullptr;
    dwfl_module_info(module, nullptr, nullptr, nullptr, nullptr, nullptr, &mainFile, &debugFile);
    return debugFile == nullptr ? std::filesystem::path() : std::filesystem::path(debugFile);
}

std::string_view DebugInformation::readable(const char* mangled) {
    const auto [known, isNew] = knownNames.try_emplace(mangled);
    if (isNew) {
        std::string name = demangle(mangled);
        // A symbol's version.
        name.erase(std::min(name.find('@'), name.size()));
        known->second = keep(isShort ? withoutTemplateArguments(name) : std::move(name));
    }
    return known->second;
}

/// Relative names are the compiler's, seen from the folder where it ran.
std::string_view DebugInformation::fileName(DwarfUnit& unit, const char* name) {
    if (name == nullptr) {
        return {};
    }
    const auto [known, isNew] = knownFiles.try_emplace(name);
    if (isNew) {
        std::filesystem::path path = name;
        const char* const folder = path.is_relative() ? text(unit.die, DW_AT_comp_dir) : nullptr;
        // Some of the names begin with that folder already.
        if (folder != nullptr && !path.native().starts_with(std::string(folder) + '/')) {
            path = folder / path;
        }
        known->second = keep(path.lexically_normal().string());
    }
    return known->second;
}

std::string_view DebugInformation::symbolName(Symbol& symbol) {
    if (symbol.readableName.empty()) {
        symbol.readableName = readable(symbol.name);
    }
    return symbol.readableName;
}

/// A mangled name has the whole of it, arguments and namespaces. Where there is none the symbols
/// may have a better one for the function that stands there itself (`symbolAddress` not 0): that by
/// which others call it.
std::string_view DebugInformation::functionName(DwarfScope& scope, std::uint64_t symbolAddress) {
    if (scope.name.empty()) {
        const char* name = text(scope.die, DW_AT_linkage_name);
        if (name == nullptr) {
            name = text(scope.die, DW_AT_MIPS_linkage_name);
        }
        scope.hasMangledName =
            name != nullptr && name[0] == '_' && (name[1] == 'Z' || name[1] == 'R');
        if (name == nullptr) {
            name = text(scope.die, DW_AT_name);
        }
        scope.name = name == nullptr ? std::string_view() : readable(name);
    }
    if (!scope.hasMangledName && symbolAddress != 0) {
        if (Symbol* const symbol = symbols.at(symbolAddress)) {
            return symbolName(*symbol);
        }
    }
    return scope.name;
}

bool DebugInformation::nameFromUnit(std::uint64_t address, std::uint64_t symbolAddress,
                                    FrameName& name) {
    DwarfUnit* const unit = units.at(address);
    if (unit == nullptr) {
        return false;
    }
    SourcePlace place;
    if (Dwarf_Line* const line = dwarf_getsrc_die(&unit->die, address)) {
        int number = 0;
        dwarf_lineno(line, &number);
        place.file = fileName(*unit, dwarf_linesrc(line, nullptr, nullptr));
        place.line = static_cast<std::uint32_t>(std::max(number, 0));
    }
    DwarfFunction* const function = unit->functionAt(address);
    if (function == nullptr) {
        // Code in assembly language.
        Symbol* const symbol = symbols.at(symbolAddress);
        if (symbol == nullptr) {
            return false;
        }
        place.function = symbolName(*symbol);
        name.places.push_back(place);
        return true;
    }
    std::uint32_t scope = function->scopeAt(address);
    Dwarf_Files* files = nullptr;
    std::size_t fileCount = 0;
    if (scope != 0) {
        dwarf_getsrcfiles(&unit->die, &files, &fileCount);
    }
    for (; scope != 0; scope = function->scopes[scope].parent) {
        DwarfScope& inlined = function->scopes[scope];
        place.function = functionName(inlined, 0);
        name.places.push_back(place);
        const auto file = number(inlined.die, DW_AT_call_file);
        place.file = file && files != nullptr && *file < fileCount
                         ? fileName(*unit, dwarf_filesrc(files, *file, nullptr, nullptr))
                         : std::string_view();
        place.line = static_cast<std::uint32_t>(number(inlined.die, DW_AT_call_line).value_or(0));
    }
    place.function = functionName(function->scopes.front(), symbolAddress);
    name.places.push_back(place);
    return true;
}

FrameName DebugInformation::nameAt(std::uint64_t offset) {
    FrameName name;
    if (nameFromUnit(dwarfBase + offset, symbolBase + offset, name)) {
        name.source = NameSource::debugInformation;
    } else if (Symbol* const symbol = symbols.at(symbolBase + offset)) {
        name.places.push_back({symbolName(*symbol), {}, 0});
        name.source = isDynamicOnly ? NameSource::dynamicSymbols : NameSource::debugInformation;
    }
    return name;
}

}  // namespace ThreadUtilities::companion
