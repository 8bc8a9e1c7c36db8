// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "foundation/text_conversion.h"

#include <cstddef>
#include <limits>
#include <string>
#include <string_view>

namespace ThreadUtilities {
namespace {

constexpr std::size_t longestText = std::numeric_limits<int>::max();

// `convert` is the system's converter: asked for the length of the result first, then for the
// result.
template <typename To, typename From>
std::basic_string<To> converted(std::basic_string_view<From> text,
                                int (*convert)(const From*, int, To*, int)) {
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

WideString utf8ToWide(std::string_view text) {
    return converted(text, platform::convertUtf8ToWide);
}

std::string wideToUtf8(const WideString& text) {
    return wideToUtf8(WideStringView(text));
}

std::string wideToUtf8(WideStringView text) {
    return converted(text, platform::convertWideToUtf8);
}

}  // namespace ThreadUtilities
