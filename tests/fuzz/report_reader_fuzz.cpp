// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "companion/read_text.h"
#include "fuzz/require.h"

using namespace ThreadUtilities::companion;

namespace {

/// Nodes lie inside of each other, and no call has more samples than its caller.
void requireTree(const ThreadProfile& thread) {
    for (std::uint32_t index = 0; index < thread.nodes.size(); ++index) {
        const ProfileNode& node = thread.nodes[index];
        require(node.end > index && node.end <= thread.nodes.size());
        std::uint64_t sum = 0;
        for (std::uint32_t child = index + 1; child < node.end; child = thread.nodes[child].end) {
            require(thread.nodes[child].end <= node.end);
            sum += thread.nodes[child].count;
        }
        require(sum <= node.count);
    }
}

}  // namespace

/// What is found does not depend on how the bytes arrive.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const Pieces whole(input);
    const Pieces bytes(input, 1);
    require(whole.text == bytes.text);
    require(whole.document.frames.size() == bytes.document.frames.size());
    require(whole.document.stacks.size() == bytes.document.stacks.size());
    require(whole.document.complaints.size() == bytes.document.complaints.size());
    require(whole.document.profiles.size() == bytes.document.profiles.size());
    for (const Profile& profile : whole.document.profiles) {
        for (const ThreadProfile& thread : profile.threads) {
            requireTree(thread);
        }
    }
    return 0;
}
