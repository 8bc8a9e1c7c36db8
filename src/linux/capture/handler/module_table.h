// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>

#include "platform/code_modules.h"

namespace ThreadUtilities::platform {

/// Brings the library's own list of loaded modules up to date, for C libraries that cannot look one
/// up in a signal handler. Takes the loader's lock; cheap when nothing was loaded or unloaded.
void refreshModuleTable() noexcept;

/// Finds a module in the list as it was refreshed last; false as well while another thread, or the
/// thread that this handler interrupts, refreshes it.
/// Gives the range, the unwind header and where its tables can be read.
/// Context: signal handler.
bool findInModuleTable(std::uint64_t address, CodeModule& module) noexcept;

/// Lets all lookups use this list although the C library has a lookup of its own, for tests; or
/// not any more. Takes the loader's lock.
void setModuleTableUse(bool always) noexcept;

}  // namespace ThreadUtilities::platform
