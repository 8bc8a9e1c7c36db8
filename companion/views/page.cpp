// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "views/page.h"
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <span>
#include <string>
#include <string_view>

#include "support/json_text.h"
#include "support/string_table.h"
#include "views/page_text.h"

namespace ThreadUtilities::companion {
namespace {

std::string_view sourceText(NameSource source) {
    switch (source) {
        case NameSource::debugInformation:
            return "debug";
        case NameSource::dynamicSymbols:
            return "dynamic";
        case NameSource::none:
            break;
    }
    return "none";
}

}  // namespace

PageWriter::PageWriter(std::ostream& target, const PageHead& head)
    : output(target), isDifference(head.difference.has_value()) {
    output << pageBeforeData << R"({"title":)" << jsonString(head.title) << R"(,"about":)"
           << jsonString(head.about);
    if (head.difference) {
        output << R"(,"before":{"samples":)" << head.difference->before
               << R"(},"after":{"samples":)" << head.difference->after << '}';
    }
    output << ",\n\"threads\":[";
}

void PageWriter::addThread(std::string_view name, const PageTree& tree) {
    const auto column = [&](std::string_view key, auto member) {
        output << ",\"" << key << "\":";
        writeJsonArray(output, tree, [&](const PageNode& node) { output << node.*member; });
    };
    output << (isFirst ? "" : ",\n") << R"({"name":)" << jsonString(name) << R"(,"func":)";
    isFirst = false;
    writeJsonArray(output, tree, [&](const PageNode& node) {
        node.depth == 0 ? output << -1 : output << node.function;
    });
    column("depth", &PageNode::depth);
    column("line", &PageNode::line);
    column("self", &PageNode::self);
    if (isDifference) {
        column("before", &PageNode::before);
    }
    output << '}';
}

void PageWriter::finish(std::span<const Function> functions) {
    // Texts that many functions share, each written once.
    StringTable names;
    StringTable files;
    StringTable modules;
    output << "],\n\"functions\":";
    writeJsonArray(output, functions, [&](const Function& function) {
        output << '[' << names.id(function.name) << ',' << files.id(function.file) << ','
               << modules.id(function.module) << ",\"" << sourceText(function.source) << "\"]";
    });
    output << ",\n\"names\":";
    names.writeJson(output);
    output << ",\n\"files\":";
    files.writeJson(output);
    output << ",\n\"modules\":";
    modules.writeJson(output);
    output << '}' << pageBehindData;
}

std::string countText(std::uint64_t count, std::string_view noun) {
    std::string digits = std::to_string(count);
    for (std::size_t at = digits.size(); at > 3; at -= 3) {
        digits.insert(at - 3, 1, ',');
    }
    return digits + ' ' + std::string(noun) + (count == 1 ? "" : "s");
}

}  // namespace ThreadUtilities::companion
