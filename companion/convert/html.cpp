// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <cstdint>
#include <ostream>
#include <vector>

#include "convert/formats.h"
#include "views/page.h"

namespace ThreadUtilities::companion {
namespace {

PageTree pageTree(const FunctionTree& tree) {
    PageTree result;
    result.reserve(tree.size());
    for (const FunctionNode& node : tree) {
        const std::uint32_t depth =
            node.parent == FunctionNode::none ? 0 : result[node.parent].depth + 1;
        result.push_back({node.function, depth, node.line, node.self, 0});
    }
    return result;
}

}  // namespace

void writeHtml(Source& source, std::ostream& output) {
    FunctionTable& functions = source.functions();
    PageWriter page(output, {source.title(),
                             countText(source.samples(), "sample") + " of " +
                                 countText(source.threads().size(), "thread"),
                             {}});
    for (const ThreadProfile& thread : source.threads()) {
        page.addThread(threadLabel(thread), pageTree(functions.treeOf(thread)));
    }
    std::vector<Function> list;
    list.reserve(functions.size());
    for (FunctionId id = 0; id < functions.size(); ++id) {
        list.push_back(functions.function(id));
    }
    page.finish(list);
}

}  // namespace ThreadUtilities::companion
