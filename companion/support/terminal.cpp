// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "support/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>

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
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '\n') {
            result += "\\n";
        } else if (byte < 0x20 || byte == 0x7F) {
            result += "\\x";
            result += "0123456789abcdef"[byte >> 4];
            result += "0123456789abcdef"[byte & 0xF];
        } else {
            result += character;
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
