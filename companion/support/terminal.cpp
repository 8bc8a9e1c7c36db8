// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "support/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

namespace ThreadUtilities::companion {
namespace {

constexpr std::string_view ellipsis = "...";

bool isContinuation(char byte) {
    return (byte & 0xC0) == 0x80;
}

bool localeIsUtf8() {
    for (const char* const variable : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char* const value = std::getenv(variable);
        if (value != nullptr && value[0] != '\0') {
            const std::string_view locale = value;
            return locale.find("UTF-8") != std::string_view::npos ||
                   locale.find("utf8") != std::string_view::npos;
        }
    }
    return false;
}

/// The bytes of the UTF-8 character at the front, and its code; no bytes where it is none.
std::pair<std::size_t, char32_t> firstCharacter(std::string_view text) {
    constexpr std::array<char32_t, 5> lowest = {0, 0, 0x80, 0x800, 0x10000};
    const auto lead = static_cast<unsigned char>(text.front());
    if (lead < 0x80) {
        return {1, lead};
    }
    const std::size_t length = lead < 0xC0 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (length == 0 || lead > 0xF4 || length > text.size()) {
        return {0, 0};
    }
    char32_t code = lead & (0x7FU >> length);
    for (const char byte : text.substr(1, length - 1)) {
        if (!isContinuation(byte)) {
            return {0, 0};
        }
        code = code << 6 | (static_cast<unsigned char>(byte) & 0x3FU);
    }
    const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
    return {code < lowest[length] || code > 0x10FFFF || isSurrogate ? 0 : length, code};
}

bool isPrintable(char32_t code) {
    const bool isControl = code < 0x20 || (code >= 0x7F && code < 0xA0);
    const bool turnsDirection = code == 0x61C || code == 0x200E || code == 0x200F ||
                                (code >= 0x2028 && code <= 0x202E) ||
                                (code >= 0x2066 && code <= 0x2069);
    return !isControl && !turnsDirection;
}

/// The first bytes that are so many characters.
std::size_t bytesOf(std::string_view text, std::size_t columns) {
    std::size_t at = 0;
    for (; at < text.size(); ++at) {
        if (!isContinuation(text[at]) && columns-- == 0) {
            break;
        }
    }
    return at;
}

}  // namespace

Terminal Terminal::ofOutput() {
    Terminal terminal;
    terminal.hasUtf8 = localeIsUtf8();
    if (isatty(STDOUT_FILENO) == 0) {
        return terminal;
    }
    const char* const kind = std::getenv("TERM");
    terminal.hasColours =
        std::getenv("NO_COLOR") == nullptr && kind != nullptr && std::string_view(kind) != "dumb";
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
        terminal.width = size.ws_col;
    }
    return terminal;
}

std::string styled(const Terminal& terminal, Style style, std::string_view text) {
    if (!terminal.hasColours || style == Style::plain || text.empty()) {
        return std::string(text);
    }
    const char* const begin = style == Style::strong  ? "\033[1m"
                              : style == Style::faint ? "\033[2m"
                                                      : "\033[1;31m";
    return begin + std::string(text) + "\033[0m";
}

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const auto [length, code] = firstCharacter(text);
        const std::string_view bytes = text.substr(0, std::max<std::size_t>(length, 1));
        text.remove_prefix(bytes.size());
        if (length > 0 && isPrintable(code)) {
            result += bytes;
        } else if (code == '\n') {
            result += "\\n";
        } else {
            for (const char byte : bytes) {
                result += "\\x";
                result += "0123456789abcdef"[static_cast<unsigned char>(byte) >> 4];
                result += "0123456789abcdef"[byte & 0xF];
            }
        }
    }
    return result;
}

std::size_t columnsOf(std::string_view text) {
    return text.size() -
           static_cast<std::size_t>(std::count_if(text.begin(), text.end(), isContinuation));
}

std::string shortened(std::string_view text, std::size_t columns) {
    const std::size_t length = columnsOf(text);
    if (length <= columns) {
        return std::string(text);
    }
    if (columns <= ellipsis.size()) {
        return std::string(text.substr(0, bytesOf(text, columns)));
    }
    const std::size_t kept = columns - ellipsis.size();
    const std::size_t front = kept - kept / 3;
    const std::size_t backBegin = bytesOf(text, length - (kept - front));
    return std::string(text.substr(0, bytesOf(text, front))) + std::string(ellipsis) +
           std::string(text.substr(backBegin));
}

}  // namespace ThreadUtilities::companion
