// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/modules/process_map.h"

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace ThreadUtilities::platform {
namespace {

constexpr std::string_view escapedLineFeed = "\\012";

/// Takes fields from the front of a line; after the first that is not as it should be, all fail.
class Line {
 public:
    explicit Line(std::string_view text) : rest(text) {}

    bool ok() const { return !failed; }

    /// A number and the one character that must follow it.
    std::uint64_t number(int base, char terminator) {
        std::uint64_t value = 0;
        const char* const end = rest.data() + rest.size();
        const auto [next, error] = std::from_chars(rest.data(), end, value, base);
        if (error != std::errc() || next == end || *next != terminator) {
            fail();
            return 0;
        }
        rest.remove_prefix(static_cast<std::size_t>(next - rest.data()) + 1);
        return value;
    }

    /// The text up to the next space, which is passed over.
    std::string_view word() {
        const auto size = rest.find(' ');
        if (size == std::string_view::npos) {
            fail();
            return {};
        }
        const std::string_view text = rest.substr(0, size);
        rest.remove_prefix(size + 1);
        return text;
    }

    /// What is left, without the spaces in front.
    std::string_view remainder() {
        const auto begin = rest.find_first_not_of(' ');
        return begin == std::string_view::npos ? std::string_view() : rest.substr(begin);
    }

 private:
    void fail() {
        failed = true;
        rest = {};
    }

    std::string_view rest;
    bool failed = false;
};

/// "begin-end perms offset major:minor inode     name"
bool parseLine(std::string_view text, MappedRange& range) {
    Line line(text);
    range.begin = line.number(16, '-');
    range.end = line.number(16, ' ');
    const std::string_view permissions = line.word();
    range.fileOffset = line.number(16, ' ');
    line.number(16, ':');
    line.number(16, ' ');
    range.inode = line.number(10, ' ');
    range.name = line.remainder();
    range.isExecutable = permissions.size() > 2 && permissions[2] == 'x';
    return line.ok() && range.begin < range.end;
}

}  // namespace

std::vector<MappedRange> parseProcessMap(std::string_view text) {
    std::vector<MappedRange> ranges;
    for (auto end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
        MappedRange range;
        if (parseLine(text.substr(0, end), range)) {
            ranges.push_back(range);
        }
        text.remove_prefix(end + 1);
    }
    return ranges;
}

bool isMarkedDeleted(std::string_view name) noexcept {
    return name.ends_with(deletedMark);
}

std::string mappedFilePath(std::string_view name, bool isDeleted) {
    if (isDeleted && isMarkedDeleted(name)) {
        name.remove_suffix(deletedMark.size());
    }
    std::string path;
    path.reserve(name.size());
    while (!name.empty()) {
        if (name.starts_with(escapedLineFeed)) {
            path += '\n';
            name.remove_prefix(escapedLineFeed.size());
        } else {
            path += name.front();
            name.remove_prefix(1);
        }
    }
    return path;
}

}  // namespace ThreadUtilities::platform
