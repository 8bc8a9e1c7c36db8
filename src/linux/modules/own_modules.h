// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The calling process's modules, as its loader knows them.

#include <optional>
#include <vector>

#include "platform/modules.h"

namespace ThreadUtilities::platform {

/// The modules in the loader's order. None when the loader does not show all of them (it hides
/// those of other link-map namespaces) or, in a fork child, none at all, and when the
/// headers of one cannot be read.
std::optional<std::vector<LoadedModule>> listOwnModules();

/// The loader's counts of modules loaded and unloaded since the start of the process, where it can
/// be asked.
std::optional<ModuleListVersion> ownModuleListVersion() noexcept;

}  // namespace ThreadUtilities::platform
