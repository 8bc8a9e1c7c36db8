// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <string_view>

namespace vesko::source {

/// The part of a source path after its last slash or backslash, of either system; the whole path
/// when it has neither.
inline std::string_view filenameFromPath(std::string_view path) noexcept {
    return path.substr(path.find_last_of("/\\") + 1);
}

}  // namespace vesko::source
