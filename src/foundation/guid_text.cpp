#include "foundation/guid_text.h"

#include <array>
#include <cinttypes>
#include <cstdio>

#include "foundation/ascii.h"

namespace vesko {

ThreadUtilities::WideString guidToWideString(const guid& value) {
    std::array<char, 37> text;
    const auto& tail = value.Data4;
    std::snprintf(text.data(), text.size(),
                  "%08" PRIx32 "-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", value.Data1,
                  value.Data2, value.Data3, tail[0], tail[1], tail[2], tail[3], tail[4], tail[5],
                  tail[6], tail[7]);
    return ThreadUtilities::wideFromAscii(text.data());
}

}  // namespace vesko
