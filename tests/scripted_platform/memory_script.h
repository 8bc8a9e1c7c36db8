// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>
#include <map>
#include <vector>

namespace ThreadUtilities::scripted {

/// What `platform::readOwnMemory` finds, by address; nothing else can be read.
inline std::map<std::uint64_t, std::vector<std::uint8_t>> memory;
/// How often that or `platform::isReadableNow` was asked.
inline unsigned memoryQuestions = 0;

/// The bytes of 64-bit words.
std::vector<std::uint8_t> bytesOf(const std::vector<std::uint64_t>& words);

}  // namespace ThreadUtilities::scripted
