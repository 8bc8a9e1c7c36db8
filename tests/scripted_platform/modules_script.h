#pragma once

#include <optional>
#include <vector>

#include "platform/modules.h"

namespace ThreadUtilities::scripted {

/// The modules of one process; a process without a script has none. `version` is what
/// `moduleListVersion` answers.
void setModules(unsigned int processId, std::vector<platform::LoadedModule> modules,
                std::optional<platform::ModuleListVersion> version = std::nullopt);

/// How often `listModules` was called, for any process.
int moduleListings();

/// Takes all scripts away and sets the count to 0.
void resetModules();

}  // namespace ThreadUtilities::scripted
