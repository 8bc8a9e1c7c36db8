// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "report/line_buffer.h"

#include <cstring>
#include <string_view>

namespace ThreadUtilities::companion {
namespace {

constexpr std::size_t chunk = std::size_t{1} << 18;

}  // namespace

LineBuffer::LineBuffer(const ReadBytes& readBytes) : input(readBytes) {}

bool LineBuffer::fill() {
    if (isAtEnd) {
        return false;
    }
    if (begin >= chunk) {
        bytes.erase(0, begin);
        for (std::size_t& end : ends) {
            end -= begin;
        }
        begin = 0;
    }
    const std::size_t size = bytes.size();
    bytes.resize(size + chunk);
    const std::size_t count = input(bytes.data() + size, chunk);
    bytes.resize(size + count);
    isAtEnd = count == 0;
    return !isAtEnd;
}

bool LineBuffer::findNextEnd() {
    std::size_t searched = 0;
    for (;;) {
        const std::size_t lineBegin = ends.empty() ? begin : ends.back();
        const std::size_t from = lineBegin + searched;
        if (const std::size_t end = bytes.find('\n', from); end != std::string::npos) {
            ends.push_back(end + 1);
            return true;
        }
        searched = bytes.size() - lineBegin;
        if (searched >= longestLine || (!fill() && searched > 0)) {
            ends.push_back(bytes.size());
            return true;
        }
        if (isAtEnd) {
            return false;
        }
    }
}

std::string_view LineBuffer::peek(std::size_t ahead) {
    while (ends.size() <= ahead) {
        if (!findNextEnd()) {
            return {};
        }
    }
    const std::size_t lineBegin = ahead == 0 ? begin : ends[ahead - 1];
    return std::string_view(bytes).substr(lineBegin, ends[ahead] - lineBegin);
}

void LineBuffer::advance(std::size_t lines) {
    for (; lines > 0 && !peek().empty(); --lines) {
        lineNumber += bytes[ends.front() - 1] == '\n' ? 1 : 0;
        begin = ends.front();
        ends.pop_front();
    }
}

std::string_view withoutLineEnd(std::string_view line) {
    if (line.ends_with('\n')) {
        line.remove_suffix(1);
    }
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return line;
}

}  // namespace ThreadUtilities::companion
