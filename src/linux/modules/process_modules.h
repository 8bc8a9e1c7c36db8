// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The modules of any process, as its memory map shows them.

#include <string>
#include <string_view>
#include <vector>

#include "platform/modules.h"

namespace ThreadUtilities::platform {

/// What the code that the kernel puts into every process is called; the map says "[vdso]", the
/// loader and the debuggers say this.
constexpr std::string_view kernelImageName = "linux-vdso.so.1";

/// The modules in ascending order of address. Empty when the process cannot be inspected.
std::vector<LoadedModule> listProcessModules(unsigned int processId);

/// The path of the file that is mapped at an address of the calling process; empty when there is
/// none.
std::string ownMappedFilePath(std::uint64_t address);

}  // namespace ThreadUtilities::platform
