// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <gmock/gmock.h>

#include <ThreadUtilities/Threads.h>

#include "scripted_platform/thread_names_script.h"

namespace ThreadUtilities {
namespace {

using ::testing::ElementsAre;

class ThreadNames : public ::testing::Test {
 protected:
    void SetUp() override { scripted::threadNames.given.clear(); }
};

TEST_F(ThreadNames, ReachTheSystemWellFormedAndWithoutNul) {
    const std::string valid =
        "Gr\xC3\xBC\xC3\x9F"
        "e \xF0\x9F\x98\x80";
    setThreadName("plain");
    setThreadName(valid);
    EXPECT_EQ(getThreadName(), valid);
    setThreadName("lone \xFF, cut \xE2\x82");
    setThreadName(std::string("before\0after", 12));
    setThreadName(std::string("\0", 1));
    setThreadName("");
    EXPECT_EQ(getThreadName(), "");

    EXPECT_THAT(
        scripted::threadNames.given,
        ElementsAre("plain", valid, "lone \xEF\xBF\xBD, cut \xEF\xBF\xBD", "before", "", ""));
}

TEST_F(ThreadNames, ComeFromTheSystemWellFormed) {
    scripted::threadNames.byThread[7] = "cut \xC3";
    scripted::threadNames.byThread[8] = "na\xC3\xAFve";
    EXPECT_EQ(getThreadName(7), "cut \xEF\xBF\xBD");
    EXPECT_EQ(getThreadName(8), "na\xC3\xAFve");
    EXPECT_EQ(getThreadName(9), "");
}

}  // namespace
}  // namespace ThreadUtilities
