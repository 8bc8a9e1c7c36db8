// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "sample/sampled_thread.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace ThreadUtilities::companion {

void SampledThread::add(std::vector<FrameId> stack) {
    addRepeats();
    last = std::move(stack);
    repeats = 1;
}

void SampledThread::addRepeats() {
    if (repeats == 0) {
        return;
    }
    std::size_t node = 0;
    nodes[node].count += repeats;
    for (auto frame = last.rbegin(); frame != last.rend(); ++frame) {
        const auto [child, isNew] = nodes[node].children.try_emplace(*frame, nodes.size());
        node = child->second;
        if (isNew) {
            nodes.emplace_back();
        }
        nodes[node].count += repeats;
    }
    repeats = 0;
}

/// Stacks have at most 256 frames, and so has the recursion.
void SampledThread::append(ThreadProfile& thread, FrameId frame, std::size_t node) const {
    const std::size_t place = thread.nodes.size();
    thread.nodes.push_back({frame, 0, nodes[node].count});
    std::vector<std::pair<FrameId, std::size_t>> children(nodes[node].children.begin(),
                                                          nodes[node].children.end());
    std::sort(children.begin(), children.end(), [&](const auto& left, const auto& right) {
        const std::uint64_t more = nodes[left.second].count;
        const std::uint64_t less = nodes[right.second].count;
        return more != less ? more > less : left.first < right.first;
    });
    for (const auto& [childFrame, child] : children) {
        append(thread, childFrame, child);
    }
    thread.nodes[place].end = static_cast<std::uint32_t>(thread.nodes.size());
}

ThreadProfile SampledThread::profile(std::uint64_t id, std::string name) {
    addRepeats();
    ThreadProfile thread;
    thread.id = id;
    thread.name = std::move(name);
    thread.samples = nodes.front().count;
    for (const auto& [frame, child] : nodes.front().children) {
        append(thread, frame, child);
    }
    return thread;
}

}  // namespace ThreadUtilities::companion
