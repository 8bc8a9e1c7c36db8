// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "report/report_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "companion/read_text.h"

namespace ThreadUtilities::companion {
namespace {

const std::string guid = "{B5883EE7-D27B-21B7-F8A9-228ED6808B85};";
const std::string frameA = "a.so+0x1A" + guid;
const std::string frameB = "my program+0x2B" + guid;

/// Counts and frames of a tree, a call in brackets behind its caller.
std::string treeText(const ThreadProfile& thread, const FrameTable& frames) {
    std::string text;
    std::size_t open = 0;
    forEachNode(thread, [&](const ProfileNode& node, std::size_t depth) {
        text += std::string(open - depth, ')') + '(' + std::to_string(node.count) + ' ' +
                frames.moduleOf(node.frame).fileName;
        open = depth + 1;
    });
    return text + std::string(open, ')');
}

TEST(ReportReader, FindsEveryTextInALogAndPassesTheRest) {
    const std::string log =
        "12:00 start\r\n12:01 profile: Total sample count: 9\nIteration count: 4\n"
        "Parallelism: 2\n\nThread 7 [6]: ui\n  [5]: " +
        frameA + "\n   [2]: " + frameB + "\n   [3]: \n    [1]: " + frameA + "\n  [1]: " + frameB +
        "\n\nThread 8 [3]: \n\n12:02 done [3]\n[7][ui]" + frameA + frameB + "\n[8][]" + frameB +
        "\n12:03 hang in \"" + frameA + frameA + "\" and " + frameA +
        ", aborted\n[1234][INFO] no frames\nlast a.so+0x1A{b5883EE7-D27B-21B7-F8A9-228ED6808B85};";
    for (const std::size_t chunk : {1, 7, 4096}) {
        const Pieces pieces(log, chunk);
        const Document& found = pieces.document;
        EXPECT_EQ(pieces.text,
                  "12:00 start\r\n12:01 profile: \n12:02 done [3]\n[1234][INFO] no frames\n"
                  "last a.so+0x1A{b5883EE7-D27B-21B7-F8A9-228ED6808B85};");
        ASSERT_EQ(found.profiles.size(), 1U);
        const Profile& profile = found.profiles[0];
        EXPECT_EQ(profile.line, 2U);
        EXPECT_EQ(profile.totalSamples, 9U);
        EXPECT_EQ(profile.iterations, 4U);
        ASSERT_EQ(profile.threads.size(), 2U);
        EXPECT_EQ(treeText(profile.threads[0], found.frames),
                  "(5 a.so(2 my program)(3 (1 a.so)))(1 my program)");
        EXPECT_EQ(profile.threads[1].samples, 3U);
        ASSERT_EQ(found.threadReports.size(), 1U);
        EXPECT_EQ(found.threadReports[0].threads[0].name, "ui");
        EXPECT_EQ(found.threadReports[0].threads[0].frames.size(), 2U);
        EXPECT_EQ(found.threadReports[0].threads[1].id, "8");
        ASSERT_EQ(found.stacks.size(), 2U);
        EXPECT_EQ(found.stacks[0].before, "12:03 hang in \"");
        EXPECT_EQ(found.stacks[0].frames.size(), 2U);
        EXPECT_EQ(found.frames.text(found.stacks[0].frames[0]), frameA);
        EXPECT_EQ(found.stacks[1].after, ", aborted\n");
        EXPECT_TRUE(found.complaints.empty());
    }
}

TEST(ReportReader, FindsItsWayWhateverThreadsAreCalled) {
    const std::vector<std::string> names = {"two\nlines",
                                            "a]b][c",
                                            frameA,
                                            "x]" + frameA,
                                            "Thread 9 [2]: x",
                                            "\n",
                                            "end]\n" + frameA + "\nof name",
                                            "  [3]: no frame",
                                            "\nTotal sample count: 5",
                                            std::string("\0\x1B[2J\xFF", 6)};
    for (const std::string& name : names) {
        const Pieces pieces("Total sample count: 5\nParallelism: 1\n\nThread 7 [3]: " + name +
                            "\n  [3]: " + frameA + "\n\nThread 8 [2]: next\n\n[7][" + name + ']' +
                            frameB + "\n[8][next]" + frameA + '\n');
        const Document& found = pieces.document;
        EXPECT_EQ(pieces.text, "") << name;
        ASSERT_EQ(found.profiles.size(), 1U) << name;
        ASSERT_EQ(found.profiles[0].threads.size(), 2U) << name;
        EXPECT_EQ(found.profiles[0].threads[0].name, name);
        EXPECT_EQ(found.profiles[0].threads[0].nodes.size(), 1U);
        ASSERT_EQ(found.threadReports.size(), 1U) << name;
        ASSERT_EQ(found.threadReports[0].threads.size(), 2U) << name;
        EXPECT_EQ(found.threadReports[0].threads[0].name, name);
        EXPECT_EQ(found.threadReports[0].threads[0].frames.size(), 1U);
        EXPECT_TRUE(found.complaints.empty()) << name;
    }
}

struct Damaged {
    std::string thread;
    /// The first thread afterwards, what passed as text, and where the complaint is.
    std::string tree;
    std::string text;
    std::size_t line;
};

TEST(ReportReader, SaysWhatItCouldNotRead) {
    const std::string head = "Total sample count: 5\nParallelism: 1\n\nThread 7 [5]: ui\n";
    const std::vector<Damaged> cases = {
        // A child above its parent, and children above it together.
        {"  [4]: " + frameA + "\n   [6]: " + frameB + "\n\n", "(4 a.so(4 my program))", "", 6},
        {"  [4]: " + frameA + "\n   [3]: " + frameB + "\n   [3]: " + frameA + "\n\n",
         "(4 a.so(3 my program)(1 a.so))", "", 7},
        // The name's second line looks like a frame of the thread's.
        {"  [5]: " + frameB + "\n  [5]: " + frameA + "\n\n", "(5 a.so)", "", 5},
        // Another program wrote into the middle.
        {"  [5]: " + frameA + "\nother\n   [1]: " + frameB + "\n\n", "(5 a.so(1 my program))",
         "other\n", 6},
        {"  [5]: " + frameA + "\n    [1]: too deep\n   [1]: " + frameB + "\n\n",
         "(5 a.so(1 my program))", "    [1]: too deep\n", 6},
        // Cut off.
        {"  [5]: " + frameA + "\n", "(5 a.so)", "", 6},
        // Fewer samples than the head says.
        {"\nThread 8 [5]: b\n\n", "", "", 1}};
    for (const Damaged& damaged : cases) {
        const Pieces pieces(head + damaged.thread);
        ASSERT_EQ(pieces.document.profiles.size(), 1U) << damaged.thread;
        EXPECT_EQ(treeText(pieces.document.profiles[0].threads[0], pieces.document.frames),
                  damaged.tree);
        EXPECT_EQ(pieces.text, damaged.text);
        ASSERT_EQ(pieces.document.complaints.size(), 1U) << damaged.thread;
        EXPECT_EQ(pieces.document.complaints[0].line, damaged.line) << damaged.thread;
    }
}

TEST(ReportReader, FindsTheThreadBehindANameLikeAWholeThread) {
    const std::string frame = "a+0x1{00000000-0000-0000-0000-000000000001};\n";
    const Pieces pieces("Total sample count: 5\nParallelism: 1\n\nThread 7 [2]: x\n  [1]: " +
                        frame + "\n  [2]: " + frame + "\nThread 8 [3]: y\n  [3]: " + frame + "\n");
    EXPECT_EQ(pieces.text, "");
    const auto& threads = pieces.document.profiles.at(0).threads;
    ASSERT_EQ(threads.size(), 2U);
    EXPECT_EQ(threads[0].nodes.size(), 1U);
    EXPECT_EQ(threads[1].name, "y");
    EXPECT_EQ(pieces.document.complaints.at(0).line, 6U);
}

}  // namespace
}  // namespace ThreadUtilities::companion
