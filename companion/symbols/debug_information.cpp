// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "symbols/debug_information.h"

#include <dwarf.h>
#include <elfutils/libdw.h>
#include <gelf.h>
#include <libelf.h>

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include "symbols/function_names.h"

namespace ThreadUtilities::companion {
namespace {

constexpr std::uint64_t pageSize = 4096;
/// Debug information may be damaged; no compiler nests deeper.
constexpr int deepestNesting = 512;

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

template <typename Visit>
void forEachChild(Dwarf_Die& parent, const Visit& visit) {
    Dwarf_Die child;
    if (dwarf_child(&parent, &child) != 0) {
        return;
    }
    do {
        visit(child);
    } while (dwarf_siblingof(&child, &child) == 0);
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

DebugInformation::DebugInformation(const std::filesystem::path& file,
                                   const std::vector<std::filesystem::path>& debugFolders,
                                   bool shortNames, KeepText keepText)
    : isShort(shortNames), keep(std::move(keepText)) {
    for (const std::filesystem::path& folder : debugFolders) {
        debugFolderList += std::filesystem::absolute(folder).string() + ':';
    }
    debugFolderList += ".debug:/usr/lib/debug";
    debugFolderText = debugFolderList.data();
    callbacks.find_elf = dwfl_build_id_find_elf;
    callbacks.find_debuginfo = dwfl_standard_find_debuginfo;
    callbacks.section_address = dwfl_offline_section_address;
    callbacks.debuginfo_path = &debugFolderText;
    session = dwfl_begin(&callbacks);
    if (session == nullptr) {
        return;
    }
    module = dwfl_report_offline(session, file.c_str(), file.c_str(), -1);
    dwfl_report_end(session, nullptr, nullptr);
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
    readUnits();
    readSymbols();
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

/// Addresses at which a linker left out the code are 0, or close to the end of all.
void DebugInformation::addRanges(Dwarf_Die& die, std::uint32_t index, Ranges& ranges) {
    Dwarf_Addr base = 0;
    Dwarf_Addr begin = 0;
    Dwarf_Addr end = 0;
    for (std::ptrdiff_t next = 0; (next = dwarf_ranges(&die, next, &base, &begin, &end)) > 0;) {
        if (begin > 1 && begin < end) {
            ranges.push_back({begin, end, index});
        }
    }
}

/// Of ranges in the order of their beginnings the last, that is innermost, one with the address.
const DebugInformation::Range* DebugInformation::find(const Ranges& ranges, std::uint64_t address) {
    auto range = std::upper_bound(
        ranges.begin(), ranges.end(), address,
        [](std::uint64_t value, const Range& other) { return value < other.begin; });
    // Ranges inside of each other are few, except in a function, where none is asked for this way.
    for (int tries = 0; range != ranges.begin() && tries < 64; ++tries) {
        --range;
        if (address < range->end) {
            return &*range;
        }
    }
    return nullptr;
}

void DebugInformation::readUnits() {
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
        Unit& added = units.emplace_back();
        added.die = type == DW_UT_skeleton && splitDie.cu != nullptr ? splitDie : die;
        if (unitRanges.size() == before) {
            // A unit that does not say where its code is: its functions do.
            readFunctions(added);
            for (const Range& range : added.functionRanges) {
                unitRanges.push_back({range.begin, range.end, index});
            }
        }
    }
    std::sort(unitRanges.begin(), unitRanges.end(), comesBefore);
}

void DebugInformation::addFunctions(Unit& unit, Dwarf_Die& parent, int depth) {
    if (depth > deepestNesting) {
        return;
    }
    forEachChild(parent, [&](Dwarf_Die& child) {
        const int tag = dwarf_tag(&child);
        if (tag == DW_TAG_subprogram) {
            const auto index = static_cast<std::uint32_t>(unit.functions.size());
            const std::size_t before = unit.functionRanges.size();
            addRanges(child, index, unit.functionRanges);
            if (unit.functionRanges.size() > before) {
                unit.functions.emplace_back().die = child;
                // Functions of the function's own, in some languages.
                addFunctions(unit, child, depth + 1);
            }
        } else if (holdsFunctions(tag)) {
            addFunctions(unit, child, depth + 1);
        }
    });
}

void DebugInformation::readFunctions(Unit& unit) {
    unit.isRead = true;
    addFunctions(unit, unit.die, 0);
    std::sort(unit.functionRanges.begin(), unit.functionRanges.end(), comesBefore);
}

void DebugInformation::addScopes(FunctionScopes& function, Dwarf_Die& parent,
                                 std::uint32_t parentScope, int depth) {
    if (depth > deepestNesting) {
        return;
    }
    forEachChild(parent, [&](Dwarf_Die& child) {
        const int tag = dwarf_tag(&child);
        if (tag == DW_TAG_inlined_subroutine) {
            const auto index = static_cast<std::uint32_t>(function.scopes.size());
            addRanges(child, index, function.ranges);
            function.scopes.push_back({child, parentScope});
            addScopes(function, child, index, depth + 1);
        } else if (isBlock(tag)) {
            addScopes(function, child, parentScope, depth + 1);
        }
    });
}

void DebugInformation::readScopes(FunctionScopes& function) {
    function.isRead = true;
    function.scopes.push_back({function.die, 0});
    addScopes(function, function.die, 0, 0);
}

void DebugInformation::readSymbols() {
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
            symbols.push_back({address, address + symbol.st_size, name, type != STT_NOTYPE,
                               GELF_ST_BIND(symbol.st_info) != STB_LOCAL});
        }
    }
    // Of several names for one place the one with a size wins, then one that others may call, then
    // the shortest: those that a library adds for itself have more underscores.
    std::sort(symbols.begin(), symbols.end(), [](const Symbol& left, const Symbol& right) {
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
    });
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

const DebugInformation::Symbol* DebugInformation::symbolAt(std::uint64_t address) {
    auto symbol = std::upper_bound(
        symbols.begin(), symbols.end(), address,
        [](std::uint64_t value, const Symbol& other) { return value < other.begin; });
    if (symbol == symbols.begin()) {
        return nullptr;
    }
    --symbol;
    return address < symbol->end ? &*symbol : nullptr;
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
std::string_view DebugInformation::fileName(Unit& unit, const char* name) {
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

/// A mangled name has the whole of it, arguments and namespaces. Where there is none the symbols
/// may have a better one for the function that stands there itself (`symbolAddress` not 0): that by
/// which others call it.
std::string_view DebugInformation::functionName(Dwarf_Die& die, std::uint64_t symbolAddress) {
    const char* name = text(die, DW_AT_linkage_name);
    if (name == nullptr) {
        name = text(die, DW_AT_MIPS_linkage_name);
    }
    const bool isMangled = name != nullptr && name[0] == '_' && (name[1] == 'Z' || name[1] == 'R');
    if (!isMangled && symbolAddress != 0) {
        const Symbol* const symbol = symbolAt(symbolAddress);
        name = symbol == nullptr ? name : symbol->name;
    }
    if (name == nullptr) {
        name = text(die, DW_AT_name);
    }
    return name == nullptr ? std::string_view() : readable(name);
}

bool DebugInformation::nameFromUnit(std::uint64_t address, std::uint64_t symbolAddress,
                                    FrameName& name) {
    const Range* const unitRange = find(unitRanges, address);
    if (unitRange == nullptr) {
        return false;
    }
    Unit& unit = units[unitRange->index];
    if (!unit.isRead) {
        readFunctions(unit);
    }
    SourcePlace place;
    if (Dwarf_Line* const line = dwarf_getsrc_die(&unit.die, address)) {
        int number = 0;
        dwarf_lineno(line, &number);
        place.file = fileName(unit, dwarf_linesrc(line, nullptr, nullptr));
        place.line = static_cast<std::uint32_t>(std::max(number, 0));
    }
    const Range* const functionRange = find(unit.functionRanges, address);
    if (functionRange == nullptr) {
        // Code in assembly language.
        const Symbol* const symbol = symbolAt(symbolAddress);
        if (symbol == nullptr) {
            return false;
        }
        place.function = readable(symbol->name);
        name.places.push_back(place);
        return true;
    }
    FunctionScopes& function = unit.functions[functionRange->index];
    if (!function.isRead) {
        readScopes(function);
    }
    std::uint32_t scope = 0;
    for (const Range& range : function.ranges) {
        if (range.begin <= address && address < range.end) {
            scope = range.index;
        }
    }
    Dwarf_Files* files = nullptr;
    std::size_t fileCount = 0;
    if (scope != 0) {
        dwarf_getsrcfiles(&unit.die, &files, &fileCount);
    }
    for (; scope != 0; scope = function.scopes[scope].parent) {
        Dwarf_Die& inlined = function.scopes[scope].die;
        place.function = functionName(inlined, 0);
        name.places.push_back(place);
        const auto file = number(inlined, DW_AT_call_file);
        place.file = file && files != nullptr && *file < fileCount
                         ? fileName(unit, dwarf_filesrc(files, *file, nullptr, nullptr))
                         : std::string_view();
        place.line = static_cast<std::uint32_t>(number(inlined, DW_AT_call_line).value_or(0));
    }
    place.function = functionName(function.die, symbolAddress);
    name.places.push_back(place);
    return true;
}

FrameName DebugInformation::nameAt(std::uint64_t offset) {
    FrameName name;
    if (nameFromUnit(dwarfBase + offset, symbolBase + offset, name)) {
        name.source = NameSource::debugInformation;
    } else if (const Symbol* const symbol = symbolAt(symbolBase + offset)) {
        name.places.push_back({readable(symbol->name), {}, 0});
        name.source = isDynamicOnly ? NameSource::dynamicSymbols : NameSource::debugInformation;
    }
    return name;
}

}  // namespace ThreadUtilities::companion
