// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// The reports over stand-ins for what they put together, which write down who was called when.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <span>
#include <string>
#include <vector>

#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>

#include "platform/debugger.h"
#include "platform/text.h"
#include "stack/frame_details.h"
#include "stack/stack_trace.h"

namespace {

using Frames = std::vector<unsigned long long>;

struct World {
    std::map<unsigned int, Frames> stacks;
    std::map<unsigned int, std::string> names;
    std::vector<unsigned int> threadIds;
    /// How often the answer "no debugger" is still given; negative: always.
    int checksWithoutDebugger = -1;

    std::vector<std::string> events;
    unsigned int standing = 0;
};

World world;

void note(const std::string& event) {
    world.events.push_back(event);
}

/// Frames below this lie in no module.
constexpr unsigned long long firstInModule = 10;

}  // namespace

namespace ThreadUtilities {

bool platform::isDebuggerAttached() noexcept {
    return world.checksWithoutDebugger >= 0 && world.checksWithoutDebugger-- == 0;
}

unsigned long long getStackTrace(const unsigned int& threadId, unsigned long long* frames,
                                 unsigned long long maxFrames, bool suspend) {
    EXPECT_EQ(maxFrames, 256u);
    EXPECT_TRUE(suspend);
    EXPECT_EQ(world.standing, 0u) << "two threads at once";
    for (unsigned long long i = 0; i < maxFrames; ++i) {
        EXPECT_EQ(frames[i], 0u);
    }
    world.standing = threadId;
    note("stop " + std::to_string(threadId));
    const Frames& stack = world.stacks[threadId];
    const auto count = std::min<unsigned long long>(stack.size(), maxFrames);
    std::copy_n(stack.begin(), count, frames);
    world.standing = 0;
    note("run " + std::to_string(threadId));
    return count;
}

bool CaptureSeries::isDebuggerAttached(std::chrono::milliseconds) noexcept {
    return platform::isDebuggerAttached();
}

std::size_t CaptureSeries::capture(unsigned int threadId, std::span<unsigned long long> frames) {
    return getStackTrace(threadId, frames.data(), frames.size(), true);
}

WideString describeFrame(unsigned int processId, unsigned long long address) {
    EXPECT_EQ(processId, 0u);
    EXPECT_EQ(world.standing, 0u) << "described while a thread stands";
    note("describe " + std::to_string(address));
    return address < firstInModule ? WideString()
                                   : utf8ToWide("m+" + std::to_string(address) + ";");
}

std::string wideToUtf8(WideStringView text) {
    return {text.begin(), text.end()};
}

WideString utf8ToWide(std::string_view text) {
    return {text.begin(), text.end()};
}

std::vector<unsigned int> getThreadIds() {
    return world.threadIds;
}

std::string getThreadName(unsigned int threadId) {
    return world.names[threadId];
}

std::string getThreadIdString(const unsigned int& threadId) {
    return std::to_string(threadId);
}

std::string getThreadIdString() {
    return "77";
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class StackReportTest : public testing::Test {
 protected:
    ~StackReportTest() override { world = {}; }
};

TEST_F(StackReportTest, DescribesEachStackAfterItsThreadRunsAgain) {
    world.threadIds = {3, 1, 4, 3};
    world.stacks = {{3, {30, 31}}, {1, {10, 5, 11}}, {4, {9, 8}}};
    world.names = {{1, "worker"}};
    const auto [report, error] = getAllThreadStackTrace({});
    EXPECT_EQ(report, "[3][]m+30;m+31;\n[1][worker]m+10;m+11;\n[3][]m+30;m+31;\n");
    EXPECT_EQ(error, "");
    EXPECT_THAT(world.events,
                ElementsAre("stop 3", "run 3", "describe 30", "describe 31",  //
                            "stop 1", "run 1", "describe 10", "describe 5", "describe 11", "stop 4",
                            "run 4", "describe 9", "describe 8",  //
                            "stop 3", "run 3"))
        << "each frame once";
}

TEST_F(StackReportTest, TellsOneThread) {
    world.stacks = {{1, {10, 5, 11}}, {2, Frames(300, 10)}};
    EXPECT_EQ(getStackTrace({}, 1), "m+10;m+11;");
    EXPECT_EQ(getStackTrace({}, 2).size(), 256 * std::string("m+10;").size());
    EXPECT_EQ(getStackTrace({}, 99), "");
    EXPECT_EQ(getAllThreadStackTrace({}), std::make_pair(std::string(), std::string()));
}

TEST_F(StackReportTest, LeavesDebuggedThreadsAlone) {
    world.threadIds = {3, 1};
    world.stacks = {{3, {30}}, {1, {10}}};
    world.checksWithoutDebugger = 0;
    EXPECT_EQ(getStackTrace({}, 3), "debugger attached");
    world.checksWithoutDebugger = 0;
    EXPECT_EQ(getAllThreadStackTrace({}),
              std::make_pair(std::string("77"), std::string("debugger attached")));
    EXPECT_THAT(world.events, IsEmpty());

    world.checksWithoutDebugger = 2;
    EXPECT_EQ(getAllThreadStackTrace({}).first, "[3][]m+30;\n[1][]debugger attached\n")
        << "attached in between";
}

/// Counts as a framework's block does, and says when it would be gone.
class Block : public vesko::count_block {
 public:
    bool isObjectGone = false;
    int deletions = 0;

 private:
    void destroy_object() noexcept override { isObjectGone = true; }
    void delete_block() noexcept override { ++deletions; }
};

TEST_F(StackReportTest, ReleasesOneWeakCountOfItsHandle) {
    using Handle = vesko::handle<ICoreFramework>;
    Block block;
    {
        const Handle handle(nullptr, &block);
        Handle copy = handle;
        Handle moved = std::move(copy);
        copy = moved;
        Handle& same = copy;
        copy = same;
        moved = Handle();
        getStackTrace(handle, 1);
        world.checksWithoutDebugger = 0;
        getAllThreadStackTrace(std::move(copy));

        block.release_strong();
        EXPECT_TRUE(block.isObjectGone) << "handles do not keep the object";
        EXPECT_EQ(block.deletions, 0) << "but the block, without which they could not be released";
    }
    EXPECT_EQ(block.deletions, 1);
}

}  // namespace
}  // namespace ThreadUtilities
