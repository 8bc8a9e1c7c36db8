// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "report/report_reader.h"

/// Calls `note(node, depth)` for each node of a tree, in its order.
template <typename Note>
void forEachNode(const ThreadUtilities::companion::ThreadProfile& thread, Note note) {
    std::vector<std::uint32_t> ends;
    for (std::uint32_t index = 0; index < thread.nodes.size(); ++index) {
        while (!ends.empty() && ends.back() <= index) {
            ends.pop_back();
        }
        note(thread.nodes[index], ends.size());
        ends.push_back(thread.nodes[index].end);
    }
}

/// Pieces of a text, and the text as the pieces say it was.
class Pieces : public ThreadUtilities::companion::ReportSink {
 public:
    /// The input comes in chunks of this size: where they end must not matter.
    explicit Pieces(std::string_view input, std::size_t chunk = 4096) {
        std::size_t done = 0;
        readReports(
            [&](char* room, std::size_t size) {
                const std::size_t count = std::min({size, chunk, input.size() - done});
                std::memcpy(room, input.data() + done, count);
                done += count;
                return count;
            },
            document.frames, *this);
    }

    void onText(std::string_view lines) override { text += lines; }
    void onProfile(ThreadUtilities::companion::Profile&& profile) override {
        document.profiles.push_back(std::move(profile));
    }
    void onThreads(ThreadUtilities::companion::ThreadReport&& report) override {
        document.threadReports.push_back(std::move(report));
    }
    void onStack(ThreadUtilities::companion::StackText&& stack) override {
        document.stacks.push_back(std::move(stack));
    }
    void onComplaint(const ThreadUtilities::companion::Complaint& complaint) override {
        document.complaints.push_back(complaint);
    }

    ThreadUtilities::companion::Document document;
    std::string text;
};
