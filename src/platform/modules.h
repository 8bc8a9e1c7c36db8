// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The modules (program, libraries) that a process has loaded.

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/text.h"

namespace ThreadUtilities::platform {

/// The identity under which a module's debug information is filed, in the byte order of a system
/// GUID.
using DebugGuid = std::array<std::uint8_t, 16>;

struct LoadedModule {
    WideString path;
    std::uint64_t imageBase = 0;         ///< lowest mapped address
    std::uint64_t imageSize = 0;         ///< bytes up to the highest mapped end
    std::optional<DebugGuid> debugGuid;  ///< none when the module carries none, or unreadable
};

/// The modules of a process in the system's order; modules whose path or range cannot be had are
/// left out. Empty when the process cannot be inspected.
std::vector<LoadedModule> listModules(unsigned int processId);

/// Marks one state of a process's module list: while two answers are equal, `listModules` between
/// them would have given the same list. None where the system cannot tell. A list that is to be
/// kept under a version is taken after the version.
using ModuleListVersion = std::array<std::uint64_t, 2>;
std::optional<ModuleListVersion> moduleListVersion(unsigned int processId) noexcept;

/// What separates the pieces of a module path: backslash, and on some systems slash as well.
bool isModulePathSeparator(WideChar unit) noexcept;

}  // namespace ThreadUtilities::platform
