// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <map>
#include <optional>
#include <vector>

#include "platform/modules.h"

namespace ThreadUtilities::scripted {

struct ProcessModules {
    std::vector<platform::LoadedModule> modules;
    std::optional<platform::ModuleListVersion> version = std::nullopt;
};

/// By process; one that is not here has no modules.
inline std::map<unsigned int, ProcessModules> processModules;
/// How often `listModules` was called, for any process.
inline int moduleListings = 0;

}  // namespace ThreadUtilities::scripted
