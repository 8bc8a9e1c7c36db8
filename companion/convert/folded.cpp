// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "convert/formats.h"

namespace ThreadUtilities::companion {
namespace {

std::string escaped(std::string_view name) {
    std::string result;
    for (const char character : name) {
        const auto code = static_cast<unsigned char>(character);
        if (code < 0x20 || code == 0x7F || character == ';' || character == '\\') {
            result += "\\x";
            result += "0123456789ABCDEF"[code >> 4];
            result += "0123456789ABCDEF"[code & 0xF];
        } else {
            result += character;
        }
    }
    return result;
}

}  // namespace

void writeFolded(Source& source, std::ostream& output) {
    FunctionTable& functions = source.functions();
    for (const ThreadProfile& thread : source.threads()) {
        const FunctionTree tree = functions.treeOf(thread);
        std::string line = escaped(threadLabel(thread));
        // The line's length before each node on the way.
        std::vector<std::size_t> lengths;
        std::vector<std::uint32_t> ends;
        for (std::uint32_t index = 0; index < tree.size(); ++index) {
            while (!ends.empty() && ends.back() <= index) {
                line.resize(lengths.back());
                ends.pop_back();
                lengths.pop_back();
            }
            const FunctionNode& node = tree[index];
            ends.push_back(node.end);
            lengths.push_back(line.size());
            if (index > 0) {
                line += ';' + escaped(functions.function(node.function).name);
            }
            if (node.self > 0) {
                output << line << ' ' << node.self << '\n';
            }
        }
    }
}

}  // namespace ThreadUtilities::companion
