// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/modules/process_map.h"

#include <gtest/gtest.h>

namespace ThreadUtilities::platform {
namespace {

TEST(ProcessMap, ReadsEveryWellFormedLine) {
    const auto ranges = parseProcessMap(
        "55d0-55e0 r--p 00000000 fe:01 1234                       /usr/bin/odd name (deleted)\n"
        "7f0000001000-7f0000002000 r-xp 0001f000 00:2a 18446744073709551615 /a\\012b\n"
        "7f0000002000-7f0000003000 rw-p 00000000 00:00 0 \n"
        "ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0                  [vsyscall]\n");
    ASSERT_EQ(ranges.size(), 4u);
    EXPECT_EQ(ranges[0].begin, 0x55d0u);
    EXPECT_EQ(ranges[0].end, 0x55e0u);
    EXPECT_EQ(ranges[0].inode, 1234u);
    EXPECT_FALSE(ranges[0].isExecutable);
    EXPECT_EQ(ranges[0].name, "/usr/bin/odd name (deleted)");
    EXPECT_EQ(ranges[1].fileOffset, 0x1f000u);
    EXPECT_TRUE(ranges[1].isExecutable);
    EXPECT_EQ(mappedFilePath(ranges[1].name, true), "/a\nb");
    EXPECT_EQ(ranges[2].name, "");
    EXPECT_EQ(ranges[3].end, 0xffffffffff601000u);
    EXPECT_EQ(ranges[3].name, "[vsyscall]");
}

TEST(ProcessMap, LeavesDamagedLinesOut) {
    const std::string good = "1000-2000 r-xp 00000000 fe:01 7 /good\n";
    for (const char* line : {
             "\n",
             "1000-2000\n",
             "2000-1000 r-xp 00000000 fe:01 7 /backwards\n",
             "1000-20000000000000000 r-xp 00000000 fe:01 7 /too long\n",
             "-1000-2000 r-xp 00000000 fe:01 7 /signed\n",
             "1000-2000 r-xp 0000000x fe:01 7 /a\n",
             "1000-2000 r-xp 00000000 fe:01\n",
         }) {
        EXPECT_EQ(parseProcessMap(good + line + good).size(), 2u) << line;
    }
    EXPECT_EQ(parseProcessMap(good + "1000-2000 r-xp 00000000 fe:01 7 /cut o").size(), 1u);
}

TEST(ProcessMap, PathsOfDeletedFiles) {
    EXPECT_EQ(mappedFilePath("/lib/a.so (deleted)", true), "/lib/a.so");
    EXPECT_EQ(mappedFilePath("/lib/a (deleted).so", true), "/lib/a (deleted).so");
    EXPECT_EQ(mappedFilePath(" (deleted)", true), "");
}

}  // namespace
}  // namespace ThreadUtilities::platform
