// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "report/report_format.h"

#include <cstdint>
#include <string>
#include <vector>

namespace ThreadUtilities::companion {
namespace {

void appendThread(std::string& text, const ThreadProfile& thread, const FrameTable& frames) {
    text += "Thread " + std::to_string(thread.id) + " [" + std::to_string(thread.samples) +
            "]: " + thread.name + '\n';
    std::vector<std::uint32_t> ends;
    for (std::uint32_t index = 0; index < thread.nodes.size(); ++index) {
        while (!ends.empty() && ends.back() <= index) {
            ends.pop_back();
        }
        const ProfileNode& node = thread.nodes[index];
        text.append(ends.size() + 2, ' ');
        text += '[' + std::to_string(node.count) + "]: " + frames.text(node.frame) + '\n';
        ends.push_back(node.end);
    }
    text += '\n';
}

}  // namespace

std::string threadsFormat(const ThreadReport& report, const FrameTable& frames) {
    std::string text;
    for (const ThreadStack& thread : report.threads) {
        text += '[' + thread.id + "][" + thread.name + ']';
        for (const FrameId frame : thread.frames) {
            text += frames.text(frame);
        }
        text += '\n';
    }
    return text;
}

std::string profileFormat(const Profile& profile, const FrameTable& frames) {
    std::string text = "Total sample count: " + std::to_string(profile.totalSamples) + '\n';
    if (profile.iterations) {
        text += "Iteration count: " + std::to_string(*profile.iterations) + '\n';
    }
    text += "Parallelism: " + std::to_string(profile.parallelism) + "\n\n";
    for (const ThreadProfile& thread : profile.threads) {
        appendThread(text, thread, frames);
    }
    return text;
}

}  // namespace ThreadUtilities::companion
