// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// A profile as a person sees it: by function instead of by return address, inlined functions among
/// them.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "report/frame_table.h"
#include "report/report.h"
#include "symbols/symbols.h"

namespace ThreadUtilities::companion {

using FunctionId = std::uint32_t;

/// A function of a module, or a frame without a name, which stands for itself.
struct Function {
    /// `module+0xOFFSET` where there is no name; "(unknown)" for an address in no module.
    std::string_view name;
    std::string_view file;
    std::string_view module;
    NameSource source = NameSource::none;
    /// Of a frame without a name, or one of the function's.
    FrameId frame = FrameTable::unknown;
};

/// In preorder like ProfileNode, siblings heaviest first. Node 0 stands for the thread, or for all
/// threads together, and has no function.
struct FunctionNode {
    static constexpr std::uint32_t none = 0xFFFFFFFF;

    FunctionId function = none;
    std::uint32_t parent = none;
    std::uint32_t end = 0;
    /// The line with the most samples; 0 where unknown.
    std::uint32_t line = 0;
    std::uint64_t total = 0;
    /// Samples that ended here.
    std::uint64_t self = 0;
};

using FunctionTree = std::vector<FunctionNode>;

struct FunctionWeight {
    FunctionId function = FunctionNode::none;
    std::uint64_t self = 0;
    /// Samples with the function anywhere in the stack, each counted once.
    std::uint64_t total = 0;
};

/// The functions of a document, whatever profile or thread they are in.
class FunctionTable {
 public:
    /// Both must outlive the table; symbols are resolved.
    FunctionTable(const FrameTable& frameTable, const Symbols& frameSymbols);

    /// Outermost function first.
    const std::vector<FunctionId>& functionsOf(FrameId frame);
    const Function& function(FunctionId id) const { return functions[id]; }
    std::size_t size() const { return functions.size(); }

    FunctionTree treeOf(const ThreadProfile& thread);
    /// All threads under one root.
    FunctionTree treeOf(const Profile& profile);

 private:
    struct KeyHash {
        std::size_t operator()(const std::pair<std::string_view, std::string_view>& key) const {
            const std::hash<std::string_view> hash;
            return hash(key.first) * 31 + hash(key.second);
        }
    };

    FunctionId intern(const Function& function);

    const FrameTable& frames;
    const Symbols& symbols;
    std::vector<Function> functions;
    /// By name and module: the same function has one entry, whatever files its copies came from.
    std::unordered_map<std::pair<std::string_view, std::string_view>, FunctionId, KeyHash> ids;
    std::vector<std::vector<FunctionId>> known;
    std::deque<std::string> rawNames;
};

/// One entry for each function in the tree, in no order.
std::vector<FunctionWeight> weightsOf(const FunctionTree& tree);

}  // namespace ThreadUtilities::companion
