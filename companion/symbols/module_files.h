// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Files on this machine that are, or belong to, a module of a report: always by its build-id.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "report/frame_table.h"
#include "symbols/symbols.h"

namespace ThreadUtilities::companion {

/// What is found out about a file by looking into it.
struct ElfIdentity {
    /// The whole build-id; empty if it has none.
    std::string buildId;
    bool hasDebugInformation = false;

    bool matches(const ModuleGuid& guid) const;
    /// Lower-case digits.
    std::string text() const;
};

/// Nothing for what is no ELF file that can be read.
std::optional<ElfIdentity> identify(const std::filesystem::path& file);

/// As the process itself calls them; empty where it cannot be asked.
std::vector<std::filesystem::path> mappedFiles(unsigned int processId);

class ModuleFiles {
 public:
    explicit ModuleFiles(const SymbolOptions& symbolOptions) : options(symbolOptions) {}

    struct Found {
        std::filesystem::path file;
        ElfIdentity identity;
    };

    /// The first file with the module's id that has debug information; else the first with its id.
    std::optional<Found> find(const Module& module);

    struct FoundWindows {
        std::filesystem::path file;
        /// Beside it, or where the linker put it; empty without one.
        std::filesystem::path pdb;
        bool hasDwarf = false;
    };

    /// A module of Windows, by its GUID, in the folders given.
    std::optional<FoundWindows> findWindows(const Module& module);

    /// Files with a module's name and another id, each with the reason in one line.
    const std::vector<std::string>& refused() const { return refusals; }

 private:
    using Paths = std::vector<std::filesystem::path>;
    using FilesByName = std::unordered_multimap<std::string, std::filesystem::path>;

    bool consider(const std::filesystem::path& file, const Module& module, bool isNamedByUser);
    bool considerTree(const std::filesystem::path& folder, const Module& module);
    bool considerUserFolder(const std::filesystem::path& folder, const Module& module);
    bool considerProcess(const Module& module);
    bool considerSystem(const Module& module);
    void refuse(const std::filesystem::path& file, const Module& module, const std::string& id,
                const std::string& wanted);
    std::optional<FoundWindows> considerWindows(const std::filesystem::path& file,
                                                const Module& module);
    const FilesByName& filesBelow(const std::filesystem::path& folder);

    const SymbolOptions& options;
    std::unordered_map<std::string, FilesByName> knownFolders;
    std::optional<Paths> processFiles;
    std::optional<Found> best;
    std::vector<std::string> refusals;
};

}  // namespace ThreadUtilities::companion
