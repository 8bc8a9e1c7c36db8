// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Lines of an input of any size, with a look at the lines ahead.

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

#include "report/report_reader.h"

namespace ThreadUtilities::companion {

class LineBuffer {
 public:
    /// No text of the library has longer lines; longer ones are cut, so that an input without line
    /// ends needs no memory.
    static constexpr std::size_t longestLine = std::size_t{1} << 20;

    explicit LineBuffer(const ReadBytes& readBytes);

    /// The line so many ahead, its end included; empty behind the last one. Valid until the next
    /// call.
    std::string_view peek(std::size_t ahead = 0);
    void advance(std::size_t lines = 1);
    /// Of the line at hand, from 1.
    std::size_t number() const { return lineNumber; }

 private:
    bool fill();
    bool findNextEnd();

    const ReadBytes& input;
    std::string bytes;
    /// Where the line at hand begins, and the ends of this and those ahead, as far as they are
    /// known.
    std::size_t begin = 0;
    std::deque<std::size_t> ends;
    std::size_t lineNumber = 1;
    bool isAtEnd = false;
};

/// Without its line end, `\r\n` as well.
std::string_view withoutLineEnd(std::string_view line);

}  // namespace ThreadUtilities::companion
