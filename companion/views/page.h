// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// One file for a browser that shows call trees, or the difference of call trees.

#include <cstdint>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tree/function_tree.h"

namespace ThreadUtilities::companion {

struct PageNode {
    /// Not looked at for the root, which stands first.
    FunctionId function = FunctionNode::none;
    std::uint32_t depth = 0;
    std::uint32_t line = 0;
    std::uint64_t self = 0;
    /// Of a difference: own samples before, scaled to the number of samples after.
    double before = 0;
};

/// In preorder.
using PageTree = std::vector<PageNode>;

struct PageHead {
    std::string title;
    std::string about;
    /// Of a difference: how many samples each side really has.
    struct Sides {
        std::uint64_t before = 0;
        std::uint64_t after = 0;
    };
    std::optional<Sides> difference;
};

class PageWriter {
 public:
    PageWriter(std::ostream& target, const PageHead& head);
    /// Writes it at once: nothing is kept of a thread.
    void addThread(std::string_view name, const PageTree& tree);
    /// At the end, once: the functions by their ids.
    void finish(std::span<const Function> functions);

 private:
    std::ostream& output;
    bool isDifference = false;
    bool isFirst = true;
};

/// "1,234 samples"; the noun gets an s where the count is not 1.
std::string countText(std::uint64_t count, std::string_view noun);

}  // namespace ThreadUtilities::companion
