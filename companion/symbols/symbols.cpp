// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "symbols/symbols.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/terminal.h"
#include "symbols/debug_files.h"
#include "symbols/debug_information.h"
#include "symbols/llvm_symbolizer.h"
#include "symbols/module_files.h"
#include "symbols/progress.h"

namespace ThreadUtilities::companion {
namespace {

/// The module that the kernel puts into every process; it has no file.
constexpr std::string_view kernelImage = "linux-vdso.so.1";

bool isWindowsModule(std::string_view name) {
    const std::size_t dot = name.rfind('.');
    std::string ending(dot == std::string_view::npos ? std::string_view() : name.substr(dot));
    std::transform(ending.begin(), ending.end(), ending.begin(),
                   [](unsigned char character) { return std::tolower(character); });
    return ending == ".dll" || ending == ".exe";
}

std::string plural(std::size_t count, std::string_view what) {
    return std::to_string(count) + ' ' + std::string(what) + (count == 1 ? "" : "s");
}

bool hasServer() {
    const char* const servers = std::getenv("DEBUGINFOD_URLS");
    return servers != nullptr && servers[0] != '\0';
}

std::string missingFile(const Module& module) {
    if (module.guid == nilGuid) {
        return isWindowsModule(module.fileName) ? "it has no GUID"
                                                : "it has no build-id (link it with --build-id)";
    }
    if (module.fileName == kernelImage) {
        return "the kernel's own code has no file";
    }
    if (isWindowsModule(module.fileName)) {
        return "a module of Windows: --symbols with the folder of the file (and its PDB) with "
               "GUID " +
               guidText(module.guid);
    }
    return "no file here has build-id " + buildIdText(module.guid) +
           ": --symbols with its folder, or install its package" +
           (hasServer() ? " (a server cannot be asked: the report has only the first 16 bytes)"
                        : "");
}

std::string missingDebugInformation(const ElfIdentity& identity, const DebugFileSearch& search) {
    const std::string advice =
        "stripped: install the debug package with build-id " + identity.text();
    if (search.isServerSilent) {
        return advice + " (a server of DEBUGINFOD_URLS did not answer in time)";
    }
    return advice + (!hasServer()           ? ", or set DEBUGINFOD_URLS"
                     : search.isServerWrong ? " (a server of DEBUGINFOD_URLS gave another file)"
                                            : " (the servers of DEBUGINFOD_URLS do not have it)");
}

}  // namespace

Symbols::Symbols(SymbolOptions symbolOptions)
    : options(std::move(symbolOptions)),
      files(std::make_unique<ModuleFiles>(options)),
      debugFiles(std::make_unique<DebugFileSearch>()),
      progress(std::make_unique<Progress>()) {
    debugFiles->folders = options.folders;
    // The client's own patience is 90 seconds, twice, for each module.
    setenv("DEBUGINFOD_TIMEOUT", "15", 0);
    setenv("DEBUGINFOD_RETRY_LIMIT", "1", 0);
}

Symbols::~Symbols() = default;

std::string_view Symbols::keep(std::string text) {
    return *texts.insert(std::move(text)).first;
}

void Symbols::resolve(const FrameTable& frames) {
    // Of modules with new frames alone: a log's next line has few of the many.
    std::map<ModuleId, std::vector<FrameId>> wanted;
    const auto firstNew = static_cast<FrameId>(std::max<std::size_t>(names.size(), 1));
    for (FrameId id = firstNew; id < frames.size(); ++id) {
        wanted[frames.frame(id).module].push_back(id);
    }
    progress->add(frames.size() - std::min<std::size_t>(firstNew, frames.size()));
    names.resize(frames.size());
    modules.resize(frames.moduleCount());
    openModules.resize(frames.moduleCount());
    for (auto& [module, wantedFrames] : wanted) {
        resolveModule(frames, module, std::move(wantedFrames));
    }
    progress->clear();
}

void Symbols::openModule(const Module& module, OpenModule& open, ModuleSymbols& result) {
    open.isSearched = true;
    result.name = module.fileName;
    const bool isFound = isWindowsModule(module.fileName) ? openWindowsFile(module, open, result)
                                                          : openElfFile(module, open, result);
    if (!isFound) {
        result.missing = missingFile(module);
    }
}

bool Symbols::openElfFile(const Module& module, OpenModule& open, ModuleSymbols& result) {
    const auto found = files->find(module);
    if (!found) {
        return false;
    }
    result.file = found->file;
    open.information = std::make_unique<DebugInformation>(
        found->file, *debugFiles, options.shortNames,
        [this](std::string text) { return keep(std::move(text)); });
    if (!open.information->isOpen()) {
        result.missing = found->file.string() + " is damaged";
        open.information.reset();
        return true;
    }
    result.debugFile = open.information->debugFile();
    if (!open.information->hasLines()) {
        result.missing = missingDebugInformation(found->identity, *debugFiles);
    }
    return true;
}

bool Symbols::openWindowsFile(const Module& module, OpenModule& open, ModuleSymbols& result) {
    const auto found = files->findWindows(module);
    if (!found) {
        return false;
    }
    if (llvmSymbolizer.empty()) {
        llvmSymbolizer = findLlvmSymbolizer();
    }
    result.file = found->file;
    result.debugFile = found->pdb;
    if (llvmSymbolizer.empty()) {
        result.missing = "llvm-symbolizer reads its names: install the package llvm";
    } else {
        open.windowsFile = found->file;
        if (!found->hasDwarf && found->pdb.empty()) {
            result.missing = "its PDB is not beside " + found->file.string();
        }
    }
    return true;
}

void Symbols::resolveModule(const FrameTable& frames, ModuleId id, std::vector<FrameId> wanted) {
    OpenModule& open = openModules[id];
    ModuleSymbols& result = modules[id];
    if (!open.isSearched) {
        openModule(frames.module(id), open, result);
    }
    // Neighbours share a unit and a function, which are read once.
    std::sort(wanted.begin(), wanted.end(), [&](FrameId left, FrameId right) {
        return frames.frame(left).offset < frames.frame(right).offset;
    });
    // An entry is a return address; the call that it belongs to ends one byte earlier.
    const auto callOf = [&](FrameId frame) {
        const std::uint64_t offset = frames.frame(frame).offset;
        return offset == 0 ? 0 : offset - 1;
    };
    if (open.information) {
        for (const FrameId frame : wanted) {
            names[frame] = open.information->nameAt(callOf(frame));
            progress->step();
        }
    } else if (!open.windowsFile.empty()) {
        std::vector<std::uint64_t> calls(wanted.size());
        std::transform(wanted.begin(), wanted.end(), calls.begin(), callOf);
        nameByLlvm(wanted, calls, open.windowsFile, result);
    }
    result.frames += wanted.size();
    for (const FrameId frame : wanted) {
        result.named += names[frame].places.empty() ? 0 : 1;
        result.namedByDynamicSymbols += names[frame].source == NameSource::dynamicSymbols ? 1 : 0;
    }
    if (result.named < result.frames && result.missing.empty()) {
        result.missing = "its debug information does not cover them";
    }
}

/// By another program, which is asked for all calls at once.
void Symbols::nameByLlvm(const std::vector<FrameId>& wanted,
                         const std::vector<std::uint64_t>& calls, const std::filesystem::path& file,
                         ModuleSymbols& result) {
    auto answers = namesByLlvm(llvmSymbolizer, file, calls, options.shortNames,
                               [this](std::string text) { return keep(std::move(text)); });
    if (!answers) {
        result.missing = llvmSymbolizer.string() + " does not read " + file.string();
        return;
    }
    for (std::size_t index = 0; index < wanted.size(); ++index) {
        names[wanted[index]] = std::move((*answers)[index]);
        progress->step();
    }
}

bool Symbols::isComplete() const {
    return std::all_of(modules.begin(), modules.end(),
                       [](const ModuleSymbols& module) { return module.named == module.frames; });
}

bool Symbols::isOfAnotherSystem() const {
    const bool isNamed = std::any_of(modules.begin(), modules.end(),
                                     [](const ModuleSymbols& module) { return module.named > 0; });
    return !isNamed && std::any_of(modules.begin(), modules.end(), [](const ModuleSymbols& module) {
        return isWindowsModule(module.name);
    });
}

std::string Symbols::summary() const {
    std::size_t frames = 0;
    std::size_t named = 0;
    std::size_t dynamic = 0;
    std::size_t namedModules = 0;
    std::string rest;
    for (const ModuleSymbols& module : modules) {
        frames += module.frames;
        named += module.named;
        dynamic += module.namedByDynamicSymbols;
        namedModules += module.named > 0 ? 1 : 0;
        if (!module.missing.empty()) {
            rest += "  " + printable(module.name) + ": ";
            if (module.named < module.frames) {
                rest += std::to_string(module.frames - module.named) + " of " +
                        plural(module.frames, "frame") + " without a name; ";
            }
            rest += printable(module.missing) + '\n';
        }
    }
    std::string text = "named " + std::to_string(named) + " of " + plural(frames, "frame") +
                       " from " + plural(namedModules, "module");
    if (dynamic > 0) {
        text += ", " + std::to_string(dynamic) + " of them by dynamic symbols only";
    }
    text += '\n' + rest;
    for (const std::string& refusal : files->refused()) {
        text += "  " + printable(refusal) + '\n';
    }
    return text;
}

}  // namespace ThreadUtilities::companion
