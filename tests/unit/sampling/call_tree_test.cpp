// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/Sampling.h>
#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>
#include <thread>

#include "unit/sampling/lower_layers.h"

namespace ThreadUtilities {
namespace {

using Frames = std::vector<unsigned long long>;

class CallTreeTest : public testing::Test {
 protected:
    CallTreeTest() : layers(scripted::resetLowerLayers()) { layers.threads[0] = {1}; }

    /// Adds a stack, innermost frame first.
    static void addTo(Tree& tree, unsigned long long thread, const Frames& frames) {
        tree.add(thread, Tree::FrameIterator(frames.cend()), Tree::FrameIterator(frames.cbegin()));
    }

    static std::string dumpOf(Tree& tree) {
        std::ostringstream text;
        tree.dump(text, 0);
        return text.str();
    }

    scripted::LowerLayers& layers;
};

TEST_F(CallTreeTest, SharedPathsCountEverySampleAndTheMainThreadIsPrintedFirst) {
    layers.mainThreadId = 812;
    layers.names[812] = "ui";
    Tree root;
    for (unsigned int thread = 900; thread < 920; ++thread) {
        addTo(root, thread, {3});
    }
    addTo(root, 812, {44, 22, 22, 11});
    addTo(root, 812, {44, 22, 22, 11});
    addTo(root, 812, {22, 22, 11});
    addTo(root, 812, {});
    std::string text = dumpOf(root);
    const std::string mainBlock =
        "Thread 812 [4]: ui\n"
        "  [3]: frame 0/11\n"
        "   [3]: frame 0/22\n"
        "    [3]: frame 0/22\n"
        "     [2]: frame 0/44\n"
        "\n";
    EXPECT_EQ(text.substr(0, mainBlock.size()), mainBlock);
    text.erase(0, mainBlock.size());
    // The others in any order, each once, and nothing else.
    for (unsigned int thread = 900; thread < 920; ++thread) {
        const std::string block =
            "Thread " + std::to_string(thread) + " [1]: \n  [1]: frame 0/3\n\n";
        const auto place = text.find(block);
        ASSERT_NE(place, std::string::npos) << thread << " in " << text;
        text.erase(place, block.size());
    }
    EXPECT_EQ(text, "");
}

TEST_F(CallTreeTest, DumpAsksForTheThreadsOfItsProcessAndIgnoresTheStreamsFormatting) {
    Tree other(77);
    addTo(other, 1000000, {16});
    EXPECT_EQ(dumpOf(other), "");
    layers.threads[77] = {1};
    std::ostringstream text;
    text << std::hex << std::showbase << std::setw(30) << std::setfill('*');
    other.dump(text, 0);
    EXPECT_EQ(text.str(), "Thread 1000000 [1]: \n  [1]: frame 77/16\n\n");
}

TEST_F(CallTreeTest, ThreadsThatAddTheSamePathMeetInTheSameNodes) {
    Tree root;
    constexpr int rounds = 2000;
    {
        std::vector<std::jthread> threads;
        for (int index = 0; index < 4; ++index) {
            threads.emplace_back([&root] {
                for (int round = 0; round < rounds; ++round) {
                    addTo(root, 5, {20, 10});
                    addTo(root, 5, {});
                }
            });
        }
    }
    EXPECT_EQ(dumpOf(root), "Thread 5 [16000]: \n  [8000]: frame 0/10\n   [8000]: frame 0/20\n\n");
}

}  // namespace
}  // namespace ThreadUtilities
