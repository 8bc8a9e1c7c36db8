// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "foundation/guid_text.h"

#include <cstddef>
#include <cstdint>

namespace vesko {
namespace {

using ThreadUtilities::WideChar;
using ThreadUtilities::WideString;

/// By hand, because a module list wants a hundred of these texts at once and the C library's
/// formatting takes ten times as long.
void putHex(WideChar*& out, std::uint32_t value, int digits) {
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) {
        *out++ = static_cast<WideChar>("0123456789abcdef"[value >> shift & 0xF]);
    }
}

}  // namespace

WideString guidToWideString(const guid& value) {
    constexpr std::size_t length = 36;
    WideString text(length, '-');
    WideChar* out = text.data();
    putHex(out, value.Data1, 8);
    putHex(out += 1, value.Data2, 4);
    putHex(out += 1, value.Data3, 4);
    ++out;
    for (std::size_t index = 0; index < value.Data4.size(); ++index) {
        out += index == 2 ? 1 : 0;
        putHex(out, value.Data4[index], 2);
    }
    return text;
}

}  // namespace vesko
