// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// What a module of Windows and its PDB say of themselves (PE/COFF: debug directory, CodeView;
/// LLVM: The MSF File Format, The PDB Info Stream).

#include <filesystem>
#include <optional>
#include <string>

#include "report/frame_table.h"

namespace ThreadUtilities::companion {

struct WindowsIdentity {
    ModuleGuid guid = {};
    /// As the linker wrote it, often with the folder of the machine that linked it; empty without
    /// one.
    std::string pdb;
    /// Has DWARF inside.
    bool hasDwarf = false;
};

/// Nothing for what is no module, or has no GUID.
std::optional<WindowsIdentity> identifyWindowsModule(const std::filesystem::path& file);

/// Nothing for what is no PDB.
std::optional<ModuleGuid> guidOfPdb(const std::filesystem::path& file);

}  // namespace ThreadUtilities::companion
