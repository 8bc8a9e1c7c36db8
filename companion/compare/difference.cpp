// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "compare/difference.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ThreadUtilities::companion {

Change changeOf(const Counts& counts, const Counts& samples) {
    constexpr double hundred = 100;
    Change change;
    double variance = 0;
    const auto share = [&](std::uint64_t count, std::uint64_t all) {
        const double adjusted = static_cast<double>(count + 1) / static_cast<double>(all + 2);
        variance += adjusted * (1 - adjusted) / static_cast<double>(all + 2);
        return all == 0 ? 0 : hundred * static_cast<double>(count) / static_cast<double>(all);
    };
    change.before = share(counts.before, samples.before);
    change.after = share(counts.after, samples.after);
    change.points = change.after - change.before;
    change.margin = 2 * hundred * std::sqrt(variance);
    return change;
}

Difference::Difference(Source& before, Source& after)
    : beforeSource(before), afterSource(after), sampleCounts{before.samples(), after.samples()} {}

FunctionId Difference::intern(const Function& function) {
    const auto [known, isNew] = functionIds.try_emplace(
        std::pair(function.name, function.module), static_cast<FunctionId>(functionList.size()));
    if (isNew) {
        functionList.push_back(function);
    }
    return known->second;
}

std::vector<Difference::Weight> Difference::weights() {
    std::unordered_map<FunctionId, Weight> found;
    const auto addSide = [&](Source& source, std::uint64_t Counts::* side) {
        for (const ThreadProfile& thread : source.threads()) {
            for (const FunctionWeight& weight : weightsOf(source.functions().treeOf(thread))) {
                const FunctionId id = intern(source.functions().function(weight.function));
                Weight& sum = found[id];
                sum.function = id;
                sum.self.*side += weight.self;
                sum.total.*side += weight.total;
            }
        }
    };
    addSide(beforeSource, &Counts::before);
    addSide(afterSource, &Counts::after);
    std::vector<Weight> result;
    result.reserve(found.size());
    for (const auto& [id, weight] : found) {
        result.push_back(weight);
    }
    std::sort(result.begin(), result.end(), [](const Weight& left, const Weight& right) {
        return left.function < right.function;
    });
    return result;
}

void Difference::add(CommonTree& common, Source& source, const FunctionTree& tree,
                     std::uint64_t Counts::* side) {
    std::vector<std::uint32_t> ids(tree.size(), 0);
    common.nodes[0].self.*side += tree[0].self;
    for (std::uint32_t index = 1; index < tree.size(); ++index) {
        const FunctionId function = intern(source.functions().function(tree[index].function));
        const std::uint32_t parent = ids[tree[index].parent];
        const auto [known, isNew] = common.ids.try_emplace(
            std::pair(parent, function), static_cast<std::uint32_t>(common.nodes.size()));
        ids[index] = known->second;
        if (isNew) {
            common.nodes[parent].children.push_back(known->second);
            common.nodes.push_back({function, 0, {}, {}});
        }
        Node& node = common.nodes[known->second];
        node.self.*side += tree[index].self;
        node.line = tree[index].line;
    }
}

std::map<std::string, Difference::CommonTree> Difference::build() {
    std::map<std::string, CommonTree> trees;
    const auto addSide = [&](Source& source, std::uint64_t Counts::* side) {
        for (const ThreadProfile& thread : source.threads()) {
            // The id of a thread without a name says nothing about the other run's.
            add(trees[thread.name.empty() ? "threads without a name" : thread.name], source,
                source.functions().treeOf(thread), side);
        }
    };
    addSide(beforeSource, &Counts::before);
    addSide(afterSource, &Counts::after);
    return trees;
}

PageTree Difference::pageTree(const CommonTree& common) const {
    const double scale = sampleCounts.before == 0 ? 0
                                                  : static_cast<double>(sampleCounts.after) /
                                                        static_cast<double>(sampleCounts.before);
    PageTree result;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> open{{0, 0}};
    while (!open.empty()) {
        const auto [index, depth] = open.back();
        open.pop_back();
        const Node& node = common.nodes[index];
        result.push_back({node.function, depth, node.line, node.self.after,
                          scale * static_cast<double>(node.self.before)});
        for (auto child = node.children.rbegin(); child != node.children.rend(); ++child) {
            open.emplace_back(*child, depth + 1);
        }
    }
    return result;
}

std::vector<std::pair<std::string, PageTree>> Difference::threads() {
    std::vector<std::pair<std::string, PageTree>> result;
    for (const auto& [name, common] : build()) {
        result.emplace_back(name, pageTree(common));
    }
    return result;
}

}  // namespace ThreadUtilities::companion
