#pragma once

// Wide text from ASCII literals, which have no common spelling for the two kinds of WideChar.

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "platform/text.h"

namespace ThreadUtilities {

inline WideString wideFromAscii(std::string_view ascii) {
    return WideString(ascii.begin(), ascii.end());
}

/// A wide literal without an allocation: `constexpr WideLiteral suffix("};");`.
template <std::size_t Size>
class WideLiteral {
 public:
    explicit consteval WideLiteral(const char (&ascii)[Size]) {
        std::copy_n(ascii, Size, units.begin());
    }

    /// Without the terminating NUL.
    constexpr WideStringView view() const noexcept { return {units.data(), Size - 1}; }

 private:
    std::array<WideChar, Size> units{};
};

}  // namespace ThreadUtilities
