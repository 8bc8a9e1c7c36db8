#pragma once

// The modules (program, libraries) that a process has loaded.

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/text.h"

namespace ThreadUtilities::platform {

struct LoadedModule {
    WideString path;
    std::uint64_t imageBase = 0;  ///< lowest mapped address
    std::uint64_t imageSize = 0;  ///< bytes up to the highest mapped end
    /// The identity under which the module's debug information is filed, in the byte order of a
    /// system GUID; none when the module carries none or it cannot be read.
    std::optional<std::array<std::uint8_t, 16>> debugGuid;
};

/// The modules of a process in the system's order; modules whose path or range cannot be had are
/// left out. Empty when the process cannot be inspected.
std::vector<LoadedModule> listModules(unsigned int processId);

/// What separates the pieces of a module path: backslash, and on some systems slash as well.
bool isModulePathSeparator(WideChar unit) noexcept;

}  // namespace ThreadUtilities::platform
