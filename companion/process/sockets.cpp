// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/sockets.h"

#include <arpa/inet.h>

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "process/target.h"

namespace ThreadUtilities::companion {
namespace {

/// The kernel writes the state of a TCP socket that waits for connections so.
constexpr std::string_view listening = "0A";

bool takeHex(std::string_view text, std::uint32_t& value) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    return !text.empty() && result.ec == std::errc() && result.ptr == text.data() + text.size();
}

}  // namespace

std::optional<std::string> internetAddress(std::string_view kernelText) {
    constexpr std::size_t digitsOfWord = 8;
    const std::size_t colon = kernelText.find(':');
    if (colon != digitsOfWord && colon != 4 * digitsOfWord) {
        return std::nullopt;
    }
    // Each word of four bytes is printed as a number of this machine.
    std::array<std::uint32_t, 4> words = {};
    std::uint32_t port = 0;
    bool isWhole = takeHex(kernelText.substr(colon + 1), port);
    for (std::size_t word = 0; word < colon / digitsOfWord; ++word) {
        isWhole =
            takeHex(kernelText.substr(word * digitsOfWord, digitsOfWord), words[word]) && isWhole;
    }
    if (!isWhole) {
        return std::nullopt;
    }
    const bool isVersion4 = colon == digitsOfWord;
    std::array<char, INET6_ADDRSTRLEN> text = {};
    inet_ntop(isVersion4 ? AF_INET : AF_INET6, words.data(), text.data(), text.size());
    const std::string address = text.data();
    return (isVersion4 ? address : '[' + address + ']') + ':' + std::to_string(port);
}

/// Lines are "N: LOCAL REMOTE STATE QUEUES TIMER RETRANSMIT UID TIMEOUT INODE ...".
void Sockets::readInternet(const char* file, std::string_view protocol) {
    std::istringstream table(procText(folder / "net" / file));
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string number, local, remote, state, skipped;
        std::uint64_t inode = 0;
        fields >> number >> local >> remote >> state;
        for (int field = 0; field < 5; ++field) {
            fields >> skipped;
        }
        const auto from = internetAddress(local);
        const auto to = internetAddress(remote);
        if (!(fields >> inode) || !from || !to) {
            continue;  // the heading
        }
        std::string text = std::string(protocol) + ' ' + *from;
        if (protocol == "TCP" && state == listening) {
            text += " (listening)";
        } else if (!remote.ends_with(":0000")) {
            text += " with " + *to;
        }
        known->emplace(inode, std::move(text));
    }
}

/// Lines are "NUM: REFERENCES PROTOCOL FLAGS TYPE STATE INODE [PATH]".
void Sockets::readUnix() {
    std::istringstream table(procText(folder / "net" / "unix"));
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string skipped;
        std::uint64_t inode = 0;
        for (int field = 0; field < 6; ++field) {
            fields >> skipped;
        }
        if (!(fields >> inode)) {
            continue;
        }
        std::string path;
        std::getline(fields >> std::ws, path);
        known->emplace(inode,
                       path.empty() ? "UNIX socket " + std::to_string(inode) : "UNIX " + path);
    }
}

const std::string& Sockets::describe(std::uint64_t inode) {
    if (!known) {
        known.emplace();
        readInternet("tcp", "TCP");
        readInternet("tcp6", "TCP");
        readInternet("udp", "UDP");
        readInternet("udp6", "UDP");
        readUnix();
    }
    return known->emplace(inode, "socket " + std::to_string(inode)).first->second;
}

}  // namespace ThreadUtilities::companion
