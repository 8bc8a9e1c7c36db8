// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/Sampling.h>
#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <string>
#include <vector>

#include "companion/read_text.h"
#include "support/parked_thread.h"
#include "support/target_thread.h"

namespace ThreadUtilities::companion {
namespace {

/// What looks like anything else.
const std::vector<std::string> names = {
    "zwei\nZeilen", "[7][x]a+0x1{00000000-0000-0000-0000-000000000001};", "Thread 7 [1]: y", "]"};

std::string textOf(const Profile& profile, const FrameTable& frames) {
    std::string text = "Total sample count: " + std::to_string(profile.totalSamples) + '\n';
    if (profile.iterations) {
        text += "Iteration count: " + std::to_string(*profile.iterations) + '\n';
    }
    text += "Parallelism: " + std::to_string(profile.parallelism) + "\n\n";
    for (const ThreadProfile& thread : profile.threads) {
        text += "Thread " + std::to_string(thread.id) + " [" + std::to_string(thread.samples) +
                "]: " + thread.name + '\n';
        forEachNode(thread, [&](const ProfileNode& node, std::size_t depth) {
            text += std::string(depth + 2, ' ') + '[' + std::to_string(node.count) +
                    "]: " + frames.text(node.frame) + '\n';
        });
        text += '\n';
    }
    return text;
}

std::string textOf(const std::vector<FrameId>& stack, const FrameTable& frames) {
    std::string text;
    for (const FrameId frame : stack) {
        text += frames.text(frame);
    }
    return text;
}

/// What was read, written again.
std::string textOf(const Document& document) {
    std::string text;
    for (const Profile& profile : document.profiles) {
        text += textOf(profile, document.frames);
    }
    for (const ThreadReport& report : document.threadReports) {
        for (const ThreadStack& thread : report.threads) {
            text += '[' + thread.id + "][" + thread.name + ']' +
                    textOf(thread.frames, document.frames) + '\n';
        }
    }
    for (const StackText& stack : document.stacks) {
        text += stack.before + textOf(stack.frames, document.frames) + stack.after;
    }
    return text;
}

TEST(WrittenTexts, AreReadWithoutLossOrComplaint) {
    std::deque<ParkedThread> waiting;
    for (const std::string& name : names) {
        waiting.emplace_back([&] { setThreadName(name); });
    }
    const TargetThread running([](const std::atomic<bool>& stop) {
        setThreadName(names.front());
        spinUntil(stop);
    });
    const auto report = getAllThreadStackTrace(vesko::handle<ICoreFramework>());
    const std::string texts[] = {
        sampleAllThreads(std::chrono::seconds(1), std::chrono::milliseconds(5)),
        sampleProcessAllThread(static_cast<unsigned int>(getpid()), getThreadId(),
                               std::chrono::seconds(1), std::chrono::milliseconds(20),
                               std::chrono::milliseconds(100), {}),
        sampleProcessThread(static_cast<unsigned int>(getpid()), getThreadId(),
                            std::chrono::seconds(1), std::chrono::milliseconds(20), {}),
        report.first,
        report.second,
        getStackTrace(vesko::handle<ICoreFramework>(), getThreadId()) + '\n',
    };
    for (const std::string& text : texts) {
        const Pieces pieces(text, 7);
        EXPECT_EQ(pieces.text + textOf(pieces.document), text);
        for (const Complaint& complaint : pieces.document.complaints) {
            ADD_FAILURE() << complaint.line << ": " << complaint.what << '\n' << text;
        }
    }
}

}  // namespace
}  // namespace ThreadUtilities::companion
