// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "report/frame_text.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

namespace ThreadUtilities::companion {
namespace {

constexpr std::string_view offsetMark = "+0x";
constexpr std::size_t guidLength = 36;
/// `{`, the GUID, `};`.
constexpr std::size_t bracesLength = guidLength + 3;
constexpr std::size_t mostDigits = 16;

/// Of upper-case digits only; nothing for none or for more than 64 bits.
std::optional<std::uint64_t> parseHex(std::string_view digits) {
    if (digits.empty() || digits.size() > mostDigits) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    for (const char digit : digits) {
        if (digit >= '0' && digit <= '9') {
            value = value * 16 + static_cast<std::uint64_t>(digit - '0');
        } else if (digit >= 'A' && digit <= 'F') {
            value = value * 16 + static_cast<std::uint64_t>(digit - 'A' + 10);
        } else {
            return std::nullopt;
        }
    }
    return value;
}

/// The tail whose last character stands before `end`.
std::optional<FrameTail> tailEndingAt(std::string_view line, std::size_t end) {
    if (end < bracesLength || line[end - 1] != ';' || line[end - 2] != '}' ||
        line[end - bracesLength] != '{') {
        return std::nullopt;
    }
    const std::size_t brace = end - bracesLength;
    const std::string_view guid = line.substr(brace + 1, guidLength);
    const std::size_t searchFrom = brace - std::min(brace, mostDigits + offsetMark.size());
    const std::size_t mark = line.substr(searchFrom, brace - searchFrom).rfind(offsetMark);
    if (mark == std::string_view::npos) {
        return std::nullopt;
    }
    const std::size_t begin = searchFrom + mark;
    const std::size_t digits = begin + offsetMark.size();
    const auto offset = parseHex(line.substr(digits, brace - digits));
    if (!offset) {
        return std::nullopt;
    }
    return FrameTail{begin, end, guid, *offset};
}

}  // namespace

std::optional<FrameTail> findFrameTail(std::string_view line, std::size_t from) {
    for (std::size_t at = line.find("};", from); at != std::string_view::npos;
         at = line.find("};", at + 1)) {
        const auto tail = tailEndingAt(line, at + 2);
        if (tail && tail->begin >= from && parseGuid(tail->guid)) {
            return tail;
        }
    }
    return std::nullopt;
}

std::optional<FramePieces> parseFrame(std::string_view text) {
    const auto tail = tailEndingAt(text, text.size());
    if (!tail || tail->begin == 0) {
        return std::nullopt;
    }
    return FramePieces{text.substr(0, tail->begin), tail->guid, tail->offset};
}

std::optional<FrameId> FrameInterner::intern(const FramePieces& pieces) {
    std::uint64_t key = 0;
    std::memcpy(&key, pieces.guid.data(), sizeof(key));
    Remembered& known = remembered[(key * 0x9E3779B97F4A7C15) >> 56];
    if (known.guid != pieces.guid || known.name != pieces.name) {
        const auto guid = parseGuid(pieces.guid);
        if (!guid) {
            return std::nullopt;
        }
        known.module = frames.internModule(pieces.name, *guid);
        known.guid = pieces.guid;
        known.name = pieces.name;
    }
    return frames.intern(known.module, pieces.offset);
}

}  // namespace ThreadUtilities::companion
