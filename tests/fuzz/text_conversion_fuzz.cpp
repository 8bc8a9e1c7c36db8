// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Any bytes as UTF-8 and as UTF-16: the results are well-formed, convert back and forth unchanged,
// and have the length that was announced.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/require.h"
#include "platform/text.h"

namespace {

using ThreadUtilities::utf8ToWide;
using ThreadUtilities::WideChar;
using ThreadUtilities::WideString;
using ThreadUtilities::wideToUtf8;

bool surrogatesArePaired(const WideString& text) {
    bool highBefore = false;
    for (const WideChar unit : text) {
        const bool high = unit >= 0xD800 && unit < 0xDC00;
        const bool low = unit >= 0xDC00 && unit < 0xE000;
        if (low != highBefore) {
            return false;
        }
        highBefore = high;
    }
    return !highBefore;
}

void checkUtf8(const std::string& text) {
    const WideString wide = utf8ToWide(text);
    require(wide.empty() == text.empty());
    require(wide.size() <= text.size());
    require(surrogatesArePaired(wide));
    // A result with a gap, because the second pass wrote less than the first announced, ends in
    // NUL.
    require(text.empty() || text.back() == '\0' || wide.back() != 0);
    const std::string wellFormed = wideToUtf8(wide);
    require(utf8ToWide(wellFormed) == wide);
    // What was well-formed comes back byte by byte, what was not as a replacement.
    require(wellFormed == text || wide.find(WideChar(0xFFFD)) != wide.npos);
}

void checkWide(const WideString& text) {
    const std::string utf8 = wideToUtf8(text);
    require(utf8.empty() == text.empty());
    require(utf8.size() >= text.size() && utf8.size() <= 3 * text.size());
    require(text.empty() || text.back() == 0 || utf8.back() != '\0');
    const WideString wide = utf8ToWide(utf8);
    require(surrogatesArePaired(wide));
    require(wide.size() == text.size());
    require((wide == text) == surrogatesArePaired(text));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    checkUtf8(std::string(data, data + size));
    WideString wide(size / sizeof(WideChar), WideChar());
    std::memcpy(wide.data(), data, wide.size() * sizeof(WideChar));
    checkWide(wide);
    return 0;
}
