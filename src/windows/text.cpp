// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/text.h"

#include <windows.h>

#include <cstddef>
#include <limits>
#include <string>
#include <string_view>

namespace ThreadUtilities {
namespace {

// The system counts in `int`.
constexpr std::size_t longestText = std::numeric_limits<int>::max();

/// `convert` is asked for the length of the result first, then for the result; 0 is its failure.
template <typename To, typename From, typename Convert>
std::basic_string<To> converted(std::basic_string_view<From> text, Convert convert) {
    if (text.empty() || text.size() > longestText) {
        return {};
    }
    const int count = static_cast<int>(text.size());
    const int length = convert(text.data(), count, nullptr, 0);
    if (length <= 0) {
        return {};
    }
    std::basic_string<To> result(static_cast<std::size_t>(length), To{});
    convert(text.data(), count, result.data(), length);
    return result;
}

}  // namespace

// Flags 0: malformed input is replaced, not refused.

WideString utf8ToWide(std::string_view text) {
    return converted<wchar_t>(text, [](const char* from, int count, wchar_t* to, int room) {
        return MultiByteToWideChar(CP_UTF8, 0, from, count, to, room);
    });
}

std::string wideToUtf8(WideStringView text) {
    return converted<char>(text, [](const wchar_t* from, int count, char* to, int room) {
        return WideCharToMultiByte(CP_UTF8, 0, from, count, to, room, nullptr, nullptr);
    });
}

}  // namespace ThreadUtilities
