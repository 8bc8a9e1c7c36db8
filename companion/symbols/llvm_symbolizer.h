// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Names of a module of Windows by the program llvm-symbolizer, which reads PDBs, and the DWARF of
/// mingw-w64's compilers: libdw opens ELF files alone, and finds none in a PE file.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <vector>

#include "symbols/debug_information.h"
#include "symbols/symbols.h"

namespace ThreadUtilities::companion {

/// Where it is installed, under its own name or with a version behind that; else empty.
std::filesystem::path findLlvmSymbolizer();

/// A name for each offset; empty ones where it has none. Nothing where it does not work.
std::optional<std::vector<FrameName>> namesByLlvm(const std::filesystem::path& program,
                                                  const std::filesystem::path& module,
                                                  std::span<const std::uint64_t> offsets,
                                                  bool shortNames, const KeepText& keep);

}  // namespace ThreadUtilities::companion
