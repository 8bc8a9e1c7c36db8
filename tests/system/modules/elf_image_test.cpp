// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/modules/build_id.h"

#include <gtest/gtest.h>

#include <cstring>

namespace ThreadUtilities::platform {
namespace {

using Bytes = std::vector<std::uint8_t>;

void append(Bytes& bytes, const void* data, std::size_t size) {
    const auto* const begin = static_cast<const std::uint8_t*>(data);
    bytes.insert(bytes.end(), begin, begin + size);
}

Bytes note(std::string_view name, std::uint32_t type, const Bytes& description,
           std::size_t padding = 4) {
    Bytes bytes;
    const std::uint32_t header[] = {static_cast<std::uint32_t>(name.size()),
                                    static_cast<std::uint32_t>(description.size()), type};
    append(bytes, header, sizeof(header));
    append(bytes, name.data(), name.size());
    bytes.resize((bytes.size() + padding - 1) / padding * padding);
    append(bytes, description.data(), description.size());
    bytes.resize((bytes.size() + padding - 1) / padding * padding);
    return bytes;
}

Bytes operator+(Bytes left, const Bytes& right) {
    append(left, right.data(), right.size());
    return left;
}

constexpr std::string_view gnu("GNU\0", 4);

TEST(ElfNotes, FindsTheBuildIdAndPadsItWithZeros) {
    const Bytes id{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
    const Bytes brief{0xDE, 0xAD, 0xBE, 0xEF};
    const DebugGuid wholeGuid{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const DebugGuid briefGuid{0xDE, 0xAD, 0xBE, 0xEF};
    const struct {
        const char* what;
        Bytes bytes;
        std::uint64_t alignment;
        std::optional<DebugGuid> guid;
    } cases[] = {
        {"whole, after another", note("Xen", 3, brief) + note(gnu, 3, id), 4, wholeGuid},
        {"after others", note(gnu, 1, Bytes(16)) + note("Xen", 3, id) + note(gnu, 3, brief), 4,
         briefGuid},
        {"padded to 8", note(gnu, 5, Bytes(12), 8) + note(gnu, 3, brief, 8), 8, briefGuid},
        {"alignment 1 means 4", note(gnu, 3, brief), 1, briefGuid},
        {"odd name first", note("stapsdt\0", 3, Bytes(5)) + note(gnu, 3, brief), 4, briefGuid},
        {"no description", note(gnu, 3, {}), 4, std::nullopt},
        {"another type", note(gnu, 4, id), 4, std::nullopt},
        {"another name", note("GNX\0", 3, id), 4, std::nullopt},
        {"nothing", {}, 4, std::nullopt},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(findBuildId(ByteCursor(one.bytes.data(), one.bytes.size()), one.alignment),
                  one.guid)
            << one.what;
    }
}

}  // namespace
}  // namespace ThreadUtilities::platform
