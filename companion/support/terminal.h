// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// What a person's standard output can show.

#include <cstddef>
#include <string>
#include <string_view>

namespace ThreadUtilities::companion {

struct Terminal {
    bool hasColours = false;
    bool hasUtf8 = false;
    /// Columns; 0 where lines may be as long as they are.
    std::size_t width = 0;

    /// Of the standard output.
    static Terminal ofOutput();
};

enum class Style { plain, strong, faint, hot };

std::string styled(const Terminal& terminal, Style style, std::string_view text);

/// Names come from foreign programs: what a terminal would obey (control characters, those of one
/// byte above 0x7F too, and marks that turn the direction of writing), line ends and what is no
/// UTF-8 are written as escapes.
std::string printable(std::string_view text);

/// Columns that the text takes; every character counts as one.
std::size_t columnsOf(std::string_view text);

/// With an ellipsis for its middle where it is too long.
std::string shortened(std::string_view text, std::size_t columns);

}  // namespace ThreadUtilities::companion
