// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// What two profiles have in common, function by function.

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "convert/source.h"
#include "tree/function_tree.h"
#include "views/page.h"

namespace ThreadUtilities::companion {

/// Samples of one function, or of one place in a tree, of so many.
struct Counts {
    std::uint64_t before = 0;
    std::uint64_t after = 0;
};

/// The change of a share, in points of a hundred.
struct Change {
    double before = 0;
    double after = 0;
    double points = 0;
    /// Twice the standard error of the difference of two binomial shares, each counted with one
    /// more sample with and one more without the function: also a function that was never seen has
    /// an uncertainty. Samples are taken as independent.
    double margin = 0;

    bool isNoise() const { return points <= margin && points >= -margin; }
};

Change changeOf(const Counts& counts, const Counts& samples);

/// Functions are the same where name and module are.
class Difference {
 public:
    /// Both must outlive it.
    Difference(Source& before, Source& after);

    struct Weight {
        FunctionId function = FunctionNode::none;
        Counts self;
        Counts total;
    };

    const Counts& samples() const { return sampleCounts; }
    const std::vector<Function>& functions() const { return functionList; }
    /// Over all threads.
    std::vector<Weight> weights();
    /// Threads of equal names are one. Own samples before are scaled.
    std::vector<std::pair<std::string, PageTree>> threads();

 private:
    struct Node {
        FunctionId function = FunctionNode::none;
        std::uint32_t line = 0;
        Counts self;
        std::vector<std::uint32_t> children;
    };
    /// A tree with the samples of both.
    struct CommonTree {
        std::vector<Node> nodes = std::vector<Node>(1);
        std::map<std::pair<std::uint32_t, FunctionId>, std::uint32_t> ids;
    };

    FunctionId intern(const Function& function);
    void add(CommonTree& common, Source& source, const FunctionTree& tree,
             std::uint64_t Counts::* side);
    std::map<std::string, CommonTree> build();
    PageTree pageTree(const CommonTree& common) const;

    Source& beforeSource;
    Source& afterSource;
    Counts sampleCounts;
    std::vector<Function> functionList;
    std::map<std::pair<std::string_view, std::string_view>, FunctionId> functionIds;
};

}  // namespace ThreadUtilities::companion
