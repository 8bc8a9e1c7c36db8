// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/task_texts.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "linux/proc_file.h"

namespace ThreadUtilities::platform {
namespace {

std::string_view takeWord(std::string_view& text) {
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(word.size() + 1, text.size()));
    return word;
}

// The numbers of `text`, separated by blanks; as many as there is room for.
template <std::size_t Size>
std::size_t parseNumbers(std::string_view text, int base,
                         std::array<std::uint64_t, Size>& numbers) {
    std::size_t count = 0;
    while (count < Size && !text.empty()) {
        const std::string_view word = takeWord(text);
        if (!parseField(word.substr(word.starts_with("0x") ? 2 : 0), "", base, numbers[count])) {
            break;
        }
        ++count;
    }
    return count;
}

}  // namespace

std::optional<BlockedAt> parseCallText(std::string_view text) noexcept {
    constexpr std::array inCall{Rdi, Rsi, Rdx, R10, R8, R9, Rsp, Rip};
    constexpr std::array outsideOfCall{Rsp, Rip};
    text = text.substr(0, text.find('\n'));
    BlockedAt at;
    if (!parseField(takeWord(text), "", 10, at.systemCall)) {
        return std::nullopt;
    }
    std::array<std::uint64_t, inCall.size()> numbers;
    const std::size_t count = parseNumbers(text, 16, numbers);
    if (count == inCall.size()) {
        at.isInSystemCall = true;
        for (std::size_t i = 0; i < count; ++i) {
            at.registers[inCall[i]] = numbers[i];
        }
    } else if (count == outsideOfCall.size()) {
        at.registers[Rsp] = numbers[0];
        at.registers[Rip] = numbers[1];
    }
    return at.registers[Rip] != 0 ? std::optional(at) : std::nullopt;
}

std::optional<ThreadRuns> parseRunsText(std::string_view text) noexcept {
    std::array<std::uint64_t, 3> numbers;
    if (parseNumbers(text.substr(0, text.find('\n')), 10, numbers) != numbers.size() ||
        numbers[2] == 0) {
        return std::nullopt;
    }
    return ThreadRuns{numbers[2], numbers[0], numbers[1]};
}

}  // namespace ThreadUtilities::platform
