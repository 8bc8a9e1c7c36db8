// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "commands.h"
#include "compare/difference.h"
#include "convert/output_file.h"
#include "convert/source.h"
#include "support/terminal.h"
#include "views/page.h"

namespace ThreadUtilities::companion {
namespace {

constexpr std::size_t mostLines = 10;

std::string numbers(const Change& change, const Terminal& terminal) {
    std::array<char, 96> room;
    const int length = std::snprintf(
        room.data(), room.size(), "  %+7.2f %s %-5.2f %7.2f %% %7.2f %%  ", change.points,
        terminal.hasUtf8 ? "±" : "+-", change.margin, change.before, change.after);
    return {room.data(), static_cast<std::size_t>(length)};
}

std::string nameOf(const Function& function) {
    return printable(function.name) +
           (function.module.empty() || function.source == NameSource::none
                ? std::string()
                : " (" + printable(function.module) + ')');
}

class TextWriter {
 public:
    TextWriter(Difference& wholeDifference, bool all) : difference(wholeDifference), showAll(all) {}

    void write(std::string_view heading, Counts Difference::Weight::* counts) {
        std::vector<std::pair<Change, FunctionId>> gained;
        std::vector<std::pair<Change, FunctionId>> lost;
        std::size_t noiseCount = 0;
        for (const Difference::Weight& weight : weights) {
            const Change change = changeOf(weight.*counts, difference.samples());
            if (!showAll && change.isNoise()) {
                noiseCount += change.before + change.after > 0 ? 1 : 0;
            } else if (change.points != 0) {
                (change.points > 0 ? gained : lost).emplace_back(change, weight.function);
            }
        }
        std::cout << '\n' << heading << '\n';
        if (gained.empty() && lost.empty()) {
            std::cout << "  no function changed by more than the uncertainty\n";
        } else {
            std::cout << "   Change in points  " << (terminal.hasUtf8 ? "" : " ")
                      << "  Before      After\n";
            writeList(gained);
            writeList(lost);
        }
        if (noiseCount > 0) {
            std::cout << "  " << countText(noiseCount, "function")
                      << " within the uncertainty left out (--all shows them)\n";
        }
    }

 private:
    void writeList(std::vector<std::pair<Change, FunctionId>>& list) {
        std::sort(list.begin(), list.end(), [](const auto& left, const auto& right) {
            const double gain = std::abs(left.first.points);
            const double other = std::abs(right.first.points);
            return gain != other ? gain > other : left.second < right.second;
        });
        const std::size_t shown = showAll ? list.size() : std::min(list.size(), mostLines);
        for (std::size_t index = 0; index < shown; ++index) {
            const auto& [change, function] = list[index];
            const std::string front = numbers(change, terminal);
            std::string name = nameOf(difference.functions()[function]);
            const std::size_t used = columnsOf(front);
            if (terminal.width > used) {
                name = shortened(name, terminal.width - used);
            }
            std::cout << front << name << '\n';
        }
        if (shown < list.size()) {
            std::cout << "          ... and " << list.size() - shown << " more\n";
        }
    }

    Difference& difference;
    bool showAll;
    Terminal terminal = Terminal::ofOutput();
    std::vector<Difference::Weight> weights = difference.weights();
};

void writeText(Difference& difference, const Source& before, const Source& after, bool all) {
    std::cout
        << "Before: " << printable(before.title()) << ", " << countText(before.samples(), "sample")
        << "\nAfter:  " << printable(after.title()) << ", " << countText(after.samples(), "sample")
        << "\nShares are of each side's samples, as if both had equally many. The uncertainty "
           "is twice\nthe binomial standard error, for samples that do not depend on each "
           "other: chance\nalone exceeds it for about one function in twenty.\n";
    TextWriter text(difference, all);
    text.write("Own time, functions that gained, then those that lost:", &Difference::Weight::self);
    text.write("Total time, with all that a function calls:", &Difference::Weight::total);
}

void writePicture(Difference& difference, const Source& before, const Source& after,
                  const std::filesystem::path& file) {
    OutputFile output(file);
    const Counts samples = difference.samples();
    PageWriter page(
        output.stream(),
        {before.title() + " → " + after.title(),
         countText(samples.before, "sample") + " before, " + countText(samples.after, "sample") +
             " after; those before are scaled to as many. ± is twice the binomial standard error.",
         PageHead::Sides{samples.before, samples.after}});
    for (const auto& [name, tree] : difference.threads()) {
        page.addThread(name, tree);
    }
    page.finish(difference.functions());
    output.commit();
}

}  // namespace

int runCompare(const CompareOptions& options) {
    for (const std::filesystem::path& input : {options.before, options.after}) {
        keepInput(input, options.html);
    }
    Source before(options.before, options.symbols);
    Source after(options.after, options.symbols);
    Difference difference(before, after);
    if (options.html.empty()) {
        writeText(difference, before, after, options.all);
        OutputFile("-").commit();
    } else {
        writePicture(difference, before, after, options.html);
    }
    return std::max(before.finish(), after.finish());
}

}  // namespace ThreadUtilities::companion
