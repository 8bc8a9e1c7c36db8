// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "platform/code_modules.h"
#include "platform/modules.h"

namespace ThreadUtilities::scripted {

/// What `platform::readOwnMemory` finds, by address; nothing else can be read.
inline std::map<std::uint64_t, std::vector<std::uint8_t>> memory;
/// How often that or `platform::isReadableNow` was asked.
inline unsigned memoryQuestions = 0;

/// The bytes of 64-bit words.
std::vector<std::uint8_t> bytesOf(const std::vector<std::uint64_t>& words);

/// All bytes of these can be read.
inline std::vector<platform::CodeModule> codeModules;

struct ProcessModules {
    std::vector<platform::LoadedModule> modules;
    std::optional<platform::ModuleListVersion> version = std::nullopt;
};

/// By process; one that is not here has no modules.
inline std::map<unsigned int, ProcessModules> processModules;
/// How often `listModules` was called, for any process.
inline int moduleListings = 0;

}  // namespace ThreadUtilities::scripted
