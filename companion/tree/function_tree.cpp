// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "tree/function_tree.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ThreadUtilities::companion {
namespace {

constexpr std::string_view unknownName = "(unknown)";

/// A tree while it grows: a node's children are found by function.
class GrowingTree {
 public:
    explicit GrowingTree(FunctionTable& functionTable) : functions(functionTable) {
        nodes.emplace_back();
    }

    void add(const ThreadProfile& thread, const Symbols& symbols);
    FunctionTree finish();

 private:
    struct Node {
        FunctionId function = FunctionNode::none;
        std::uint32_t parent = FunctionNode::none;
        std::uint64_t total = 0;
        std::uint64_t self = 0;
        std::uint32_t line = 0;
        std::uint64_t lineWeight = 0;
    };
    struct Open {
        std::uint32_t end = 0;
        std::uint32_t node = 0;
        std::uint64_t left = 0;
    };

    std::uint32_t childOf(std::uint32_t parent, FunctionId function);

    FunctionTable& functions;
    std::vector<Node> nodes;
    std::unordered_map<std::uint64_t, std::uint32_t> children;
};

std::uint32_t GrowingTree::childOf(std::uint32_t parent, FunctionId function) {
    const auto [known, isNew] = children.try_emplace(std::uint64_t{parent} << 32 | function,
                                                     static_cast<std::uint32_t>(nodes.size()));
    if (isNew) {
        Node& node = nodes.emplace_back();
        node.function = function;
        node.parent = parent;
    }
    return known->second;
}

void GrowingTree::add(const ThreadProfile& thread, const Symbols& symbols) {
    const auto size = static_cast<std::uint32_t>(thread.nodes.size());
    std::vector<Open> open{{size, 0, thread.samples}};
    nodes[0].total += thread.samples;
    const auto close = [&] {
        nodes[open.back().node].self += open.back().left;
        open.pop_back();
    };
    for (std::uint32_t index = 0; index < size; ++index) {
        const ProfileNode& source = thread.nodes[index];
        while (open.back().end <= index) {
            close();
        }
        open.back().left -= std::min(open.back().left, source.count);
        std::uint32_t node = open.back().node;
        const auto& places = symbols.name(source.frame).places;
        std::size_t place = places.size();
        for (const FunctionId function : functions.functionsOf(source.frame)) {
            node = childOf(node, function);
            nodes[node].total += source.count;
            const std::uint32_t line = place > 0 ? places[--place].line : 0;
            if (source.count > nodes[node].lineWeight && line != 0) {
                nodes[node].line = line;
                nodes[node].lineWeight = source.count;
            }
        }
        open.push_back({source.end, node, source.count});
    }
    while (!open.empty()) {
        close();
    }
}

FunctionTree GrowingTree::finish() {
    // Children of one parent side by side, heaviest first.
    std::vector<std::uint32_t> order(nodes.size());
    std::iota(order.begin(), order.end(), 0U);
    std::sort(order.begin() + 1, order.end(), [&](std::uint32_t left, std::uint32_t right) {
        const Node& a = nodes[left];
        const Node& b = nodes[right];
        if (a.parent != b.parent) {
            return a.parent < b.parent;
        }
        return a.total != b.total ? a.total > b.total : left < right;
    });
    std::vector<std::uint32_t> firstChild(nodes.size() + 1, 0);
    for (std::size_t at = 1; at < order.size(); ++at) {
        ++firstChild[nodes[order[at]].parent + 1];
    }
    firstChild[0] = 1;
    std::partial_sum(firstChild.begin(), firstChild.end(), firstChild.begin());
    FunctionTree tree;
    tree.reserve(nodes.size());
    struct Place {
        std::uint32_t node;
        std::uint32_t placed;
        std::uint32_t next;
    };
    const auto put = [&](std::uint32_t index, std::uint32_t parent) {
        const Node& node = nodes[index];
        tree.push_back({node.function, parent, 0, node.line, node.total, node.self});
        return Place{index, static_cast<std::uint32_t>(tree.size() - 1), firstChild[index]};
    };
    std::vector<Place> open{put(0, FunctionNode::none)};
    while (!open.empty()) {
        Place& top = open.back();
        if (top.next < firstChild[top.node + 1]) {
            const std::uint32_t child = order[top.next++];
            open.push_back(put(child, top.placed));
        } else {
            tree[top.placed].end = static_cast<std::uint32_t>(tree.size());
            open.pop_back();
        }
    }
    return tree;
}

}  // namespace

FunctionTable::FunctionTable(const FrameTable& frameTable, const Symbols& frameSymbols)
    : frames(frameTable), symbols(frameSymbols), known(frameTable.size()) {}

FunctionId FunctionTable::intern(const Function& function) {
    const auto [id, isNew] = ids.try_emplace(std::pair(function.name, function.module),
                                             static_cast<FunctionId>(functions.size()));
    if (isNew) {
        functions.push_back(function);
    }
    return id->second;
}

const std::vector<FunctionId>& FunctionTable::functionsOf(FrameId frame) {
    std::vector<FunctionId>& result = known[frame];
    if (!result.empty()) {
        return result;
    }
    const FrameName& name = symbols.name(frame);
    const std::string_view module = frames.moduleOf(frame).fileName;
    for (auto place = name.places.rbegin(); place != name.places.rend(); ++place) {
        if (!place->function.empty()) {
            result.push_back(intern({place->function, place->file, module, name.source, frame}));
        } else {
            result.push_back(intern({unknownName, place->file, module, name.source, frame}));
        }
    }
    if (result.empty()) {
        // The offset is enough for a person; the identity stands in the summary.
        std::string_view text = unknownName;
        if (frame != FrameTable::unknown) {
            const std::string whole = frames.text(frame);
            text = rawNames.emplace_back(whole.substr(0, whole.rfind('{')));
        }
        result.push_back(intern({text, {}, module, NameSource::none, frame}));
    }
    return result;
}

FunctionTree FunctionTable::treeOf(const ThreadProfile& thread) {
    GrowingTree tree(*this);
    tree.add(thread, symbols);
    return tree.finish();
}

FunctionTree FunctionTable::treeOf(const Profile& profile) {
    GrowingTree tree(*this);
    for (const ThreadProfile& thread : profile.threads) {
        tree.add(thread, symbols);
    }
    return tree.finish();
}

std::vector<FunctionWeight> weightsOf(const FunctionTree& tree) {
    std::unordered_map<FunctionId, FunctionWeight> weights;
    // Open nodes by function, so that a recursive function's samples count once.
    std::unordered_map<FunctionId, std::uint32_t> depths;
    std::vector<std::uint32_t> open;
    for (std::uint32_t index = 1; index < tree.size(); ++index) {
        while (!open.empty() && tree[open.back()].end <= index) {
            --depths[tree[open.back()].function];
            open.pop_back();
        }
        const FunctionNode& node = tree[index];
        FunctionWeight& weight = weights[node.function];
        weight.function = node.function;
        weight.self += node.self;
        if (depths[node.function]++ == 0) {
            weight.total += node.total;
        }
        open.push_back(index);
    }
    std::vector<FunctionWeight> result;
    result.reserve(weights.size());
    for (const auto& [function, weight] : weights) {
        result.push_back(weight);
    }
    return result;
}

}  // namespace ThreadUtilities::companion
