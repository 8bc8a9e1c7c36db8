// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/text.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

// For systems without converters of their own that replace what is malformed: the C library's stop
// there.

namespace ThreadUtilities {
namespace {

constexpr char32_t replacement = 0xFFFD;

/// Units at the front that are ASCII, eight bytes at a time; a few at the end may be left out.
template <typename Unit>
std::size_t asciiPrefix(const Unit* text, std::size_t count) noexcept {
    constexpr std::size_t step = sizeof(std::uint64_t) / sizeof(Unit);
    constexpr std::uint64_t beyondAscii =
        sizeof(Unit) == 1 ? 0x8080808080808080 : 0xFF80FF80FF80FF80;
    std::size_t prefix = 0;
    for (; count - prefix >= step; prefix += step) {
        std::uint64_t units;
        std::memcpy(&units, text + prefix, sizeof(units));
        if ((units & beyondAscii) != 0) {
            break;
        }
    }
    return prefix;
}

struct Decoded {
    char32_t codePoint;
    std::size_t length;
};

/// The allowed bytes of a well-formed sequence (Unicode 15, table 3-7): how many follow the lead,
/// and the range of the first of them. `following` 0 marks a byte that cannot lead.
struct Sequence {
    std::size_t following;
    std::uint8_t low;
    std::uint8_t high;
};

Sequence sequenceOf(std::uint8_t lead) noexcept {
    if (lead < 0xC2 || lead > 0xF4) {
        return {0, 0, 0};
    }
    if (lead < 0xE0) {
        return {1, 0x80, 0xBF};
    }
    if (lead < 0xF0) {
        return {2, static_cast<std::uint8_t>(lead == 0xE0 ? 0xA0 : 0x80),
                static_cast<std::uint8_t>(lead == 0xED ? 0x9F : 0xBF)};
    }
    return {3, static_cast<std::uint8_t>(lead == 0xF0 ? 0x90 : 0x80),
            static_cast<std::uint8_t>(lead == 0xF4 ? 0x8F : 0xBF)};
}

/// The character at the front. What is ill-formed is cut off at the first byte that no well-formed
/// sequence could have there, and is one replacement character.
Decoded decodeFront(std::string_view text) noexcept {
    const auto byteAt = [&](std::size_t index) { return static_cast<std::uint8_t>(text[index]); };
    const std::uint8_t lead = byteAt(0);
    if (lead < 0x80) {
        return {lead, 1};
    }
    const Sequence sequence = sequenceOf(lead);
    if (sequence.following == 0) {
        return {replacement, 1};
    }
    char32_t codePoint = lead & (0x3F >> sequence.following);
    std::uint8_t low = sequence.low;
    std::uint8_t high = sequence.high;
    for (std::size_t index = 1; index <= sequence.following; ++index) {
        if (index == text.size() || byteAt(index) < low || byteAt(index) > high) {
            return {replacement, index};
        }
        codePoint = codePoint << 6 | (byteAt(index) & 0x3F);
        low = 0x80;
        high = 0xBF;
    }
    return {codePoint, sequence.following + 1};
}

Decoded decodeFront(WideStringView text) noexcept {
    const WideChar unit = text[0];
    if (unit < 0xD800 || unit > 0xDFFF) {
        return {unit, 1};
    }
    const bool isPair = unit < 0xDC00 && text.size() > 1 && text[1] >= 0xDC00 && text[1] <= 0xDFFF;
    if (!isPair) {
        return {replacement, 1};
    }
    return {0x10000 + ((unit - 0xD800U) << 10) + (text[1] - 0xDC00U), 2};
}

void encode(char32_t codePoint, WideString& out) noexcept {
    if (codePoint < 0x10000) {
        out.push_back(static_cast<WideChar>(codePoint));
        return;
    }
    out.push_back(static_cast<WideChar>(0xD800 + ((codePoint - 0x10000) >> 10)));
    out.push_back(static_cast<WideChar>(0xDC00 + (codePoint & 0x3FF)));
}

void encode(char32_t codePoint, std::string& out) noexcept {
    const auto putContinuation = [&](unsigned shift) {
        out.push_back(static_cast<char>(0x80 | (codePoint >> shift & 0x3F)));
    };
    if (codePoint < 0x80) {
        out.push_back(static_cast<char>(codePoint));
    } else if (codePoint < 0x800) {
        out.push_back(static_cast<char>(0xC0 | codePoint >> 6));
        putContinuation(0);
    } else if (codePoint < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | codePoint >> 12));
        putContinuation(6);
        putContinuation(0);
    } else {
        out.push_back(static_cast<char>(0xF0 | codePoint >> 18));
        putContinuation(12);
        putContinuation(6);
        putContinuation(0);
    }
}

template <typename To, typename From>
std::basic_string<To> converted(std::basic_string_view<From> text) {
    std::basic_string<To> result;
    result.reserve(text.size());
    while (!text.empty()) {
        const std::size_t ascii = asciiPrefix(text.data(), text.size());
        const std::size_t length = result.size();
        result.resize(length + ascii);
        std::copy_n(text.data(), ascii, result.data() + length);
        text.remove_prefix(ascii);
        if (text.empty()) {
            break;
        }
        const Decoded decoded = decodeFront(text);
        encode(decoded.codePoint, result);
        text.remove_prefix(decoded.length);
    }
    return result;
}

}  // namespace

WideString utf8ToWide(std::string_view text) {
    return converted<WideChar>(text);
}

std::string wideToUtf8(WideStringView text) {
    return converted<char>(text);
}

}  // namespace ThreadUtilities
