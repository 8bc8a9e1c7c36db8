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

unsigned long long countAt(Tree& root, const Frames& path) {
    std::shared_ptr<Tree> node;
    Tree* current = &root;
    for (const unsigned long long key : path) {
        if (!current->children.contains(key)) {
            return 0;
        }
        node = current->children[key];
        current = node.get();
    }
    return current->count;
}

TEST_F(CallTreeTest, SharedPathsCountEverySampleAndSplitWhereTheyDiffer) {
    Tree root(77);
    addTo(root, 5, {30, 20, 10});
    addTo(root, 5, {30, 20, 10});
    addTo(root, 5, {31, 20, 10});
    addTo(root, 5, {20, 10});
    addTo(root, 5, {});
    addTo(root, 6, {10, 10});
    const std::pair<Frames, unsigned long long> expected[] = {
        {{}, 0},
        {{5}, 5},
        {{5, 10}, 4},
        {{5, 10, 20}, 4},
        {{5, 10, 20, 30}, 2},
        {{5, 10, 20, 31}, 1},
        {{6}, 1},
        {{6, 10, 10}, 1},
        {{5, 20}, 0},
    };
    for (const auto& [path, count] : expected) {
        EXPECT_EQ(countAt(root, path), count) << testing::PrintToString(path);
    }
}

TEST_F(CallTreeTest, DumpPrintsTheMainThreadFirstAndOneSpacePerLevel) {
    layers.mainThreadId = 812;
    layers.names[812] = "ui";
    Tree root;
    for (unsigned int thread = 900; thread < 920; ++thread) {
        addTo(root, thread, {3});
    }
    addTo(root, 812, {44, 33, 22, 11});
    const std::string text = dumpOf(root);
    const std::string mainBlock =
        "Thread 812 [1]: ui\n"
        "  [1]: frame 0/11\n"
        "   [1]: frame 0/22\n"
        "    [1]: frame 0/33\n"
        "     [1]: frame 0/44\n"
        "\n";
    EXPECT_EQ(text.substr(0, mainBlock.size()), mainBlock);
    for (unsigned int thread = 900; thread < 920; ++thread) {
        const std::string block =
            "\nThread " + std::to_string(thread) + " [1]: \n  [1]: frame 0/3\n\n";
        EXPECT_NE(text.find(block), std::string::npos) << thread;
    }
}

TEST_F(CallTreeTest, DumpAsksForTheThreadsOfItsProcessAndIgnoresTheStreamsFormatting) {
    Tree own;
    addTo(own, 5, {10});
    layers.threads[0] = {};
    EXPECT_EQ(dumpOf(own), "");
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
            threads.emplace_back([&root, index] {
                for (int round = 0; round < rounds; ++round) {
                    addTo(root, 5, {static_cast<unsigned long long>(round % 7), 20, 10});
                    addTo(root, static_cast<unsigned long long>(100 + index), {20, 10});
                }
            });
        }
    }
    EXPECT_EQ(countAt(root, {5, 10, 20}), 4u * rounds);
    unsigned long long leaves = 0;
    for (unsigned long long leaf = 0; leaf < 7; ++leaf) {
        leaves += countAt(root, {5, 10, 20, leaf});
    }
    EXPECT_EQ(leaves, 4u * rounds);
    EXPECT_EQ(countAt(root, {103, 10, 20}), static_cast<unsigned long long>(rounds));
}

}  // namespace
}  // namespace ThreadUtilities
