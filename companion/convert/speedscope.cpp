// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <span>
#include <string_view>
#include <vector>

#include "convert/formats.h"
#include "support/json_text.h"

namespace ThreadUtilities::companion {
namespace {

/// Where a function begins and ends, on an axis of samples: a stack is not written again for each
/// of its samples, so that deep ones stay small.
class Events {
 public:
    explicit Events(std::ostream& target) : output(target) {}

    /// Returns the end.
    std::uint64_t write(const FunctionTree& tree, std::uint64_t begin) {
        struct Open {
            std::uint32_t index;
            std::uint64_t end;
        };
        std::vector<Open> open;
        std::uint64_t at = begin;
        const auto close = [&] {
            at = open.back().end;
            event('C', at, tree[open.back().index].function);
            open.pop_back();
        };
        for (std::uint32_t index = 1; index < tree.size(); ++index) {
            while (!open.empty() && tree[open.back().index].end <= index) {
                close();
            }
            event('O', at, tree[index].function);
            open.push_back({index, at + tree[index].total});
        }
        while (!open.empty()) {
            close();
        }
        return begin + tree[0].total;
    }

 private:
    void event(char type, std::uint64_t at, FunctionId function) {
        output << separator << R"({"type":")" << type << R"(","at":)" << at << R"(,"frame":)"
               << function << '}';
        separator = ",";
    }

    std::ostream& output;
    std::string_view separator;
};

}  // namespace

void writeSpeedscope(Source& source, std::ostream& output) {
    FunctionTable& functions = source.functions();
    std::vector<FunctionTree> trees;
    std::uint64_t total = 0;
    for (const ThreadProfile& thread : source.threads()) {
        trees.push_back(functions.treeOf(thread));
        total += trees.back()[0].total;
    }
    output << R"({"$schema":"https://www.speedscope.app/file-format-schema.json",)"
           << R"("exporter":"thread-utilities","name":)" << jsonString(source.title())
           << R"(,"activeProfileIndex":0,"shared":{"frames":)";
    writeJsonArray(output, functions.size(), [&](std::size_t id) {
        const Function& function = functions.function(static_cast<FunctionId>(id));
        output << R"({"name":)" << jsonString(function.name);
        if (!function.file.empty()) {
            output << R"(,"file":)" << jsonString(function.file);
        }
        output << '}';
    });
    const auto writeProfile = [&](std::string_view name, std::uint64_t end,
                                  std::span<const FunctionTree> parts) {
        output << R"({"type":"evented","name":)" << jsonString(name)
               << R"(,"unit":"none","startValue":0,"endValue":)" << end << R"(,"events":[)";
        Events events(output);
        std::uint64_t at = 0;
        for (const FunctionTree& tree : parts) {
            at = events.write(tree, at);
        }
        output << "]}";
    };
    output << R"(},"profiles":[)";
    writeProfile("All threads", total, trees);
    for (std::size_t index = 0; index < trees.size(); ++index) {
        output << ",\n";
        writeProfile(threadLabel(source.threads()[index]), trees[index][0].total,
                     {&trees[index], 1});
    }
    output << "]}\n";
}

}  // namespace ThreadUtilities::companion
