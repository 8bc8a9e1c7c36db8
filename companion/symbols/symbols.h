// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Names of a report's frames.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "report/frame_table.h"

namespace ThreadUtilities::companion {

class DebugInformation;
class ModuleFiles;
class Progress;
struct DebugFileSearch;

struct SymbolOptions {
    /// Trees of .build-id folders, or folders of plain files.
    std::vector<std::filesystem::path> folders;
    std::optional<unsigned int> processId;
    /// What that process had mapped, for when it has ended by the time of asking.
    std::vector<std::filesystem::path> mappedFiles = {};
    /// Leaves template arguments out of the names.
    bool shortNames = false;
};

enum class NameSource : std::uint8_t {
    none,
    debugInformation,
    /// The names that a stripped module still exports: the nearest before the address, and neither
    /// inlined functions nor lines.
    dynamicSymbols,
};

/// Texts live as long as the Symbols that gave them; equal texts are the same object.
struct SourcePlace {
    std::string_view function;
    /// Empty where unknown, and line 0.
    std::string_view file;
    std::uint32_t line = 0;
};

struct FrameName {
    NameSource source = NameSource::none;
    /// Innermost inlined function first, the function itself last; empty where there is no name.
    std::vector<SourcePlace> places;
};

/// What became of a module.
struct ModuleSymbols {
    std::string name;
    std::filesystem::path file;
    /// Where its debug information came from, if elsewhere.
    std::filesystem::path debugFile;
    std::size_t frames = 0;
    std::size_t named = 0;
    std::size_t namedByDynamicSymbols = 0;
    /// What would help where frames stay without a name; empty if nothing is missing.
    std::string missing;
};

class Symbols {
 public:
    explicit Symbols(SymbolOptions symbolOptions);
    ~Symbols();
    Symbols(const Symbols&) = delete;
    Symbols& operator=(const Symbols&) = delete;

    /// Names all frames that are new in the table since the last call.
    void resolve(const FrameTable& frames);

    /// Precondition: resolved.
    const FrameName& name(FrameId frame) const { return names[frame]; }
    const ModuleSymbols& module(ModuleId module) const { return modules[module]; }

    /// For the end: a line that says how many frames are named, and from how many modules; then one
    /// for each module of whose frames some are not, with what is missing, and for each file that
    /// was refused.
    std::string summary() const;
    bool isComplete() const;
    /// Whether the frames are another system's and have no names for that reason.
    bool isOfAnotherSystem() const;

 private:
    /// What is open of a module: a log asks for a few frames again and again.
    struct OpenModule {
        bool isSearched = false;
        std::unique_ptr<DebugInformation> information;
        /// Of a module of Windows: what llvm-symbolizer is asked for; empty if nothing.
        std::filesystem::path windowsFile;
    };

    void resolveModule(const FrameTable& frames, ModuleId id, std::vector<FrameId> wanted);
    void openModule(const Module& module, OpenModule& open, ModuleSymbols& result);
    /// False: there is no such file.
    bool openElfFile(const Module& module, OpenModule& open, ModuleSymbols& result);
    bool openWindowsFile(const Module& module, OpenModule& open, ModuleSymbols& result);
    void nameByLlvm(const std::vector<FrameId>& wanted, const std::vector<std::uint64_t>& calls,
                    const std::filesystem::path& file, ModuleSymbols& result);
    std::string_view keep(std::string text);

    SymbolOptions options;
    std::unique_ptr<ModuleFiles> files;
    std::unique_ptr<DebugFileSearch> debugFiles;
    /// Empty until it is found.
    std::filesystem::path llvmSymbolizer;
    std::unique_ptr<Progress> progress;
    std::vector<FrameName> names;
    std::vector<ModuleSymbols> modules;
    /// Does not move its texts.
    std::unordered_set<std::string> texts;
    std::vector<OpenModule> openModules;
};

}  // namespace ThreadUtilities::companion
