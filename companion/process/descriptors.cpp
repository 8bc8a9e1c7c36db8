// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/descriptors.h"

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <ios>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "process/target.h"
#include "support/terminal.h"

namespace ThreadUtilities::companion {
namespace {

/// The number in "socket:[NUMBER]".
std::optional<std::uint64_t> numberIn(std::string_view link, std::string_view kind) {
    if (!link.starts_with(kind) || !link.substr(kind.size()).starts_with(":[")) {
        return std::nullopt;
    }
    std::uint64_t number = 0;
    const std::string_view digits = link.substr(kind.size() + 2);
    std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return number;
}

}  // namespace

/// A line of its file in fdinfo, without the field's name.
std::string Descriptors::fieldOf(int descriptor, std::string_view field) const {
    std::istringstream info(procText(folder / "fdinfo" / std::to_string(descriptor)));
    for (std::string line; std::getline(info, line);) {
        if (line.starts_with(field)) {
            const std::size_t begin = line.find_first_not_of(" \t", field.size());
            return begin == std::string::npos ? "" : line.substr(begin);
        }
    }
    return {};
}

std::string Descriptors::nameOf(int descriptor) {
    std::string link = procLink(folder / "fd" / std::to_string(descriptor));
    if (const auto inode = numberIn(link, "socket")) {
        return sockets.describe(*inode);
    }
    if (const auto inode = numberIn(link, "pipe")) {
        return "pipe " + std::to_string(*inode);
    }
    constexpr std::string_view anonymous = "anon_inode:";
    if (!link.starts_with(anonymous)) {
        return link;
    }
    std::string kind = link.substr(anonymous.size());
    if (kind.starts_with('[') && kind.ends_with(']')) {
        kind = kind.substr(1, kind.size() - 2);
    }
    return kind == "pidfd" ? "the end of process " + fieldOf(descriptor, "Pid:") : kind;
}

std::string Descriptors::describe(int descriptor, std::string_view purpose) {
    const std::string number = "descriptor " + std::to_string(descriptor) +
                               (purpose.empty() ? "" : ", " + std::string(purpose));
    const std::string name = printable(nameOf(descriptor));
    return name.empty() ? number : name + " (" + number + ')';
}

std::vector<Descriptors::Member> Descriptors::epollMembers(int descriptor) const {
    // "tfd:        5 events:       19 data: ...", the events in hexadecimal.
    std::vector<Member> members;
    std::istringstream info(procText(folder / "fdinfo" / std::to_string(descriptor)));
    for (std::string line; std::getline(info, line);) {
        std::istringstream fields(line);
        std::string name, eventsName;
        Member member;
        if (fields >> name >> member.descriptor >> eventsName >> std::hex >> member.events &&
            name == "tfd:") {
            members.push_back(member);
        }
    }
    return members;
}

}  // namespace ThreadUtilities::companion
