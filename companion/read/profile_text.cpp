// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "read/report_text.h"

namespace ThreadUtilities::companion {
namespace {

/// One in so many samples of a thread is shown.
constexpr std::uint64_t smallestShare = 100;
constexpr std::size_t barColumns = 8;
constexpr std::size_t heaviestCount = 10;

std::string rightAligned(std::string text, std::size_t columns) {
    return std::string(columns - std::min(columns, text.size()), ' ') + text;
}

/// With one digit behind the point: ` 12.3 %`.
std::string percentText(std::uint64_t part, std::uint64_t whole) {
    const double tenths =
        whole == 0 ? 0 : static_cast<double>(part) * 1000 / static_cast<double>(whole);
    const auto rounded = static_cast<std::uint64_t>(std::llround(tenths));
    return rightAligned(std::to_string(rounded / 10) + '.' + std::to_string(rounded % 10), 5) +
           " %";
}

std::string bar(std::uint64_t part, std::uint64_t whole, const Terminal& terminal) {
    const std::size_t eighths =
        whole == 0 ? 0
                   : static_cast<std::size_t>(std::llround(static_cast<double>(part) * barColumns *
                                                           8 / static_cast<double>(whole)));
    std::string text;
    std::size_t columns = eighths / 8;
    if (!terminal.hasUtf8) {
        columns = (eighths + 4) / 8;
        text.assign(columns, '#');
    } else {
        for (std::size_t column = 0; column < columns; ++column) {
            text += "\u2588";
        }
        if (eighths % 8 > 0) {
            // U+2589 to U+258F are seven to one eighths.
            text += "\xE2\x96";
            text += static_cast<char>(0x90 - eighths % 8);
            ++columns;
        }
    }
    return text + std::string(barColumns - std::min(barColumns, columns), ' ');
}

/// Where a function stands, for the end of a line.
std::string placeText(const Function& function, std::uint32_t line) {
    if (!function.file.empty()) {
        return std::string(function.file) + (line > 0 ? ':' + std::to_string(line) : "");
    }
    std::string text(function.source == NameSource::none ? std::string_view() : function.module);
    return function.source == NameSource::dynamicSymbols ? text + " (dynamic symbol)" : text;
}

/// Function and place within the columns that are left: the place loses its folders first.
std::string describe(const Function& function, std::uint32_t line, std::size_t columnsUsed,
                     const Terminal& terminal, Style style) {
    std::string name = printable(function.name);
    std::string place = printable(placeText(function, line));
    if (terminal.width > 0) {
        const std::size_t room =
            std::max<std::size_t>(terminal.width, columnsUsed + 20) - columnsUsed;
        if (columnsOf(name) + 2 + columnsOf(place) > room) {
            place.erase(0, place.rfind('/') + 1);
        }
        if (columnsOf(name) + 2 + columnsOf(place) > room) {
            const std::size_t forName = room - std::min(room / 3, columnsOf(place) + 2);
            name = shortened(name, forName);
            const std::size_t used = columnsOf(name) + 2;
            place = shortened(place, room - std::min(room, used));
        }
    }
    return styled(terminal, style, name) +
           (place.empty() ? "" : "  " + styled(terminal, Style::faint, place));
}

class TreeText {
 public:
    TreeText(const FunctionTree& functionTree, const FunctionTable& functionTable,
             const Terminal& outputTerminal, bool showAll)
        : tree(functionTree), functions(functionTable), terminal(outputTerminal), all(showAll) {}

    std::string write();

 private:
    struct Open {
        std::uint32_t node;
        std::size_t indent;
        bool isHot;
        std::uint32_t next;
        bool mayBeHot;
    };

    bool isShown(std::uint32_t node) const {
        return all || tree[node].total * smallestShare >= tree[0].total;
    }
    bool hasSeveralShown(std::uint32_t node) const;
    void writeNode(std::uint32_t node, std::size_t indent, bool isHot);

    const FunctionTree& tree;
    const FunctionTable& functions;
    const Terminal& terminal;
    bool all;
    std::string text;
};

/// Whether the second child is shown: the heavier ones come first.
bool TreeText::hasSeveralShown(std::uint32_t node) const {
    const std::uint32_t second = node + 1 < tree[node].end ? tree[node + 1].end : tree[node].end;
    return second < tree[node].end && isShown(second);
}

void TreeText::writeNode(std::uint32_t index, std::size_t indent, bool isHot) {
    const FunctionNode& node = tree[index];
    const std::string head = std::string(isHot ? "> " : "  ") +
                             percentText(node.total, tree[0].total) + ' ' +
                             rightAligned(std::to_string(node.total), 7) + ' ';
    const std::size_t columns = head.size() + barColumns + 1 + indent;
    text += styled(terminal, isHot ? Style::hot : Style::plain, head) +
            bar(node.total, tree[node.parent].total, terminal) + ' ' + std::string(indent, ' ') +
            describe(functions.function(node.function), node.line, columns, terminal,
                     isHot ? Style::hot : Style::strong) +
            '\n';
}

/// A call that is its caller's only one stands below it without another step to the right, so that
/// deep stacks keep room for their names.
std::string TreeText::write() {
    std::vector<Open> open{{0, 0, true, 1, true}};
    std::size_t hidden = 0;
    while (!open.empty()) {
        Open& top = open.back();
        const FunctionNode& node = tree[top.node];
        if (top.next >= node.end) {
            open.pop_back();
            continue;
        }
        const std::uint32_t child = top.next;
        top.next = tree[child].end;
        if (!isShown(child)) {
            hidden += tree[child].end - child;
            continue;
        }
        // The way on is hot as long as the greater part of the samples goes it.
        const bool isHot = top.mayBeHot && top.isHot && tree[child].total >= node.self;
        top.mayBeHot = false;
        const std::size_t indent = top.indent + (hasSeveralShown(top.node) ? 1 : 0);
        writeNode(child, indent, isHot);
        open.push_back({child, indent, isHot, child + 1, true});
    }
    if (tree[0].self > 0) {
        text += "  " + percentText(tree[0].self, tree[0].total) + ' ' +
                rightAligned(std::to_string(tree[0].self), 7) + ' ' + std::string(barColumns, ' ') +
                " (no stack could be taken)\n";
    }
    if (hidden > 0) {
        text += "  " + std::to_string(hidden) + (hidden == 1 ? " call" : " calls") +
                " below 1 % not shown (--all)\n";
    }
    return std::move(text);
}

std::string treeText(const FunctionTree& tree, const FunctionTable& functions,
                     const Terminal& terminal, bool all) {
    return TreeText(tree, functions, terminal, all).write();
}

std::string heaviestText(std::vector<FunctionWeight> weights, std::uint64_t FunctionWeight::* by,
                         const char* title, std::uint64_t whole, const FunctionTable& functions,
                         const Terminal& terminal) {
    std::sort(weights.begin(), weights.end(),
              [&](const FunctionWeight& left, const FunctionWeight& right) {
                  return left.*by != right.*by ? left.*by > right.*by
                                               : functions.function(left.function).name <
                                                     functions.function(right.function).name;
              });
    std::string text = styled(terminal, Style::strong, title) + '\n';
    for (std::size_t index = 0; index < std::min(heaviestCount, weights.size()); ++index) {
        const FunctionWeight& weight = weights[index];
        if (weight.*by == 0) {
            break;
        }
        const std::string head = "  " + percentText(weight.*by, whole) + ' ' +
                                 rightAligned(std::to_string(weight.*by), 7) + ' ';
        text += head + bar(weight.*by, whole, terminal) + ' ' +
                describe(functions.function(weight.function), 0, head.size() + barColumns + 1,
                         terminal, Style::plain) +
                '\n';
    }
    return text + '\n';
}

}  // namespace

std::string profileText(const Profile& profile, const FrameTable& frames, const Symbols& symbols,
                        const Terminal& terminal, bool all) {
    FunctionTable functions(frames, symbols);
    std::string text =
        styled(terminal, Style::strong,
               "Profile: " + std::to_string(profile.totalSamples) + " samples of " +
                   std::to_string(profile.threads.size()) +
                   (profile.threads.size() == 1 ? " thread" : " threads")) +
        (profile.iterations ? ", " + std::to_string(*profile.iterations) + " iterations" : "") +
        ", parallelism " + std::to_string(profile.parallelism) + "\n\n";
    for (const ThreadProfile& thread : profile.threads) {
        const std::string name = printable(thread.name);
        text += styled(terminal, Style::strong,
                       "Thread " + std::to_string(thread.id) + (name.empty() ? "" : ' ' + name)) +
                ": " + std::to_string(thread.samples) + " samples\n";
        text += treeText(functions.treeOf(thread), functions, terminal, all) + '\n';
    }
    const FunctionTree whole = functions.treeOf(profile);
    const std::vector<FunctionWeight> weights = weightsOf(whole);
    if (!weights.empty()) {
        text += heaviestText(weights, &FunctionWeight::self, "Heaviest functions by own time",
                             whole[0].total, functions, terminal);
        text += heaviestText(weights, &FunctionWeight::total, "Heaviest functions by total time",
                             whole[0].total, functions, terminal);
    }
    return text;
}

}  // namespace ThreadUtilities::companion
