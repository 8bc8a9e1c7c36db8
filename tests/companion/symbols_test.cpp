// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "symbols/symbols.h"

#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>

#include "companion/read_text.h"
#include "support/scratch_folder.h"

namespace ThreadUtilities::companion {
namespace {

[[gnu::noinline]] std::string ownStack() {
    return getStackTrace(vesko::handle<ICoreFramework>(), getThreadId());
}

constexpr unsigned int inlinedCallLine = __LINE__ + 2;
[[gnu::always_inline]] inline std::string inlinedCaller() {
    std::string stack = ownStack();
    return stack + ' ';
}

[[gnu::noinline]] std::string outerCaller() {
    std::string stack = inlinedCaller();
    return stack + '\n';
}

TEST(Symbols, NamesFunctionsLinesAndWhatIsInlined) {
    const Pieces pieces(outerCaller());
    Symbols symbols({.folders = {}, .processId = getpid()});
    symbols.resolve(pieces.document.frames);
    const auto& stack = pieces.document.stacks.at(0);
    for (const FrameId frame : stack.frames) {
        const auto& places = symbols.name(frame).places;
        if (places.size() < 2 || places[0].function.find("inlinedCaller") == std::string::npos) {
            continue;
        }
        EXPECT_EQ(places[0].line, inlinedCallLine);
        EXPECT_EQ(std::filesystem::path(places[0].file).filename(), "symbols_test.cpp");
        EXPECT_NE(places[1].function.find("outerCaller"), std::string::npos);
        EXPECT_EQ(places[1].line, inlinedCallLine + 5);
        return;
    }
    FAIL() << symbols.summary();
}

TEST(Symbols, RefusesAFileWithAnotherId) {
    const Pieces pieces(outerCaller());
    const ScratchFolder folder;
    const std::string name = std::filesystem::read_symlink("/proc/self/exe").filename();
    std::filesystem::copy_file("/bin/sh", folder.path / name);
    Symbols symbols({.folders = {folder.path}, .processId = {}});
    symbols.resolve(pieces.document.frames);
    const FrameId inside = pieces.document.stacks.at(0).frames.front();
    EXPECT_TRUE(symbols.name(inside).places.empty());
    const std::string summary = symbols.summary();
    EXPECT_NE(summary.find(name + ": has build-id "), std::string::npos) << summary;
    EXPECT_NE(summary.find(buildIdText(pieces.document.frames.moduleOf(inside).guid)),
              std::string::npos)
        << summary;
}

TEST(Symbols, FindsAFileInATreeByItsId) {
    const Pieces pieces(outerCaller());
    const ScratchFolder folder;
    const FrameId inside = pieces.document.stacks.at(0).frames.front();
    const std::string id = buildIdText(pieces.document.frames.moduleOf(inside).guid);
    const auto place = folder.path / ".build-id" / id.substr(0, 2);
    std::filesystem::create_directories(place);
    std::filesystem::copy_file("/proc/self/exe", place / (id.substr(2) + "00112233.debug"));
    Symbols symbols({.folders = {folder.path}, .processId = {}});
    symbols.resolve(pieces.document.frames);
    EXPECT_FALSE(symbols.name(inside).places.empty()) << symbols.summary();
}

}  // namespace
}  // namespace ThreadUtilities::companion
