// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Small files below /proc, of any process.

#include <array>
#include <cstddef>
#include <string_view>

namespace ThreadUtilities::platform {

/// A path with one number in it, without an allocation.
class ProcPath {
 public:
    /// `before` and `after` together have fewer than 100 characters.
    ProcPath(std::string_view before, unsigned int number, std::string_view after) noexcept;
    const char* text() const noexcept { return characters.data(); }

 private:
    std::array<char, 128> characters;
};

/// Reads the first `size` bytes of a file that the kernel writes in one piece. Empty when it
/// cannot be read. Not a cancellation point; `errno` stays as it is.
///
/// The file is opened and closed here: a descriptor that is kept may be closed, or made to mean
/// another file, by a host that closes what it did not open.
std::string_view readProcFile(const ProcPath& path, char* buffer, std::size_t size) noexcept;

}  // namespace ThreadUtilities::platform
