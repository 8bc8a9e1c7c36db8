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
#include "report/report_format.h"
#include "support/parked_thread.h"
#include "support/target_thread.h"

namespace ThreadUtilities::companion {
namespace {

/// What looks like anything else.
const std::vector<std::string> names = {
    "zwei\nZeilen", "[7][x]a+0x1{00000000-0000-0000-0000-000000000001};", "Thread 7 [1]: y", "]"};

/// What was read, written again.
std::string textOf(const Document& document) {
    std::string text;
    for (const Profile& profile : document.profiles) {
        text += profileFormat(profile, document.frames);
    }
    for (const ThreadReport& report : document.threadReports) {
        text += threadsFormat(report, document.frames);
    }
    for (const StackText& stack : document.stacks) {
        text += stack.before;
        for (const FrameId frame : stack.frames) {
            text += document.frames.text(frame);
        }
        text += stack.after;
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
