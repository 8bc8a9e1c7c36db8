// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <link.h>

#include <cstddef>
#include <span>

#include "platform/code_modules.h"

namespace ThreadUtilities::platform {

/// Range, unwind header and tables of a module of the loader's list; a size of 0 when its headers
/// cannot be read.
CodeModule loadedModule(const dl_phdr_info& info) noexcept;

/// Finds the modules that stay loaded for as long as this code does, and stores them in ascending
/// order of address, with range, unwind header and tables; returns how many. Takes the loader's
/// lock. `insides` are addresses in modules that the caller knows to stay, `loaderInside` one in
/// the dynamic linker.
std::size_t findPermanentModules(std::span<const std::uint64_t> insides, std::uint64_t loaderInside,
                                 std::span<CodeModule> modules) noexcept;

}  // namespace ThreadUtilities::platform
