// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <array>
#include <charconv>
#include <cstdint>
#include <string>

namespace ThreadUtilities::companion {

/// 0x and lower-case digits.
inline std::string hexText(std::uint64_t number) {
    std::array<char, 16> digits = {};
    return "0x" +
           std::string(digits.data(),
                       std::to_chars(digits.data(), digits.data() + digits.size(), number, 16).ptr);
}

}  // namespace ThreadUtilities::companion
