// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "report/frame_table.h"

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ThreadUtilities::companion {
namespace {

/// Where each byte of the memory stands in the text: the first three fields are numbers.
constexpr std::array<std::size_t, 16> digitPositions = {6,  4,  2,  0,  11, 9,  16, 14,
                                                        19, 21, 24, 26, 28, 30, 32, 34};
constexpr std::size_t guidLength = 36;

int upperCaseDigit(char character) {
    if (character >= '0' && character <= '9') {
        return character - '0';
    }
    return character >= 'A' && character <= 'F' ? character - 'A' + 10 : -1;
}

}  // namespace

std::string guidText(const ModuleGuid& guid) {
    std::string text(guidLength, '-');
    for (std::size_t index = 0; index < guid.size(); ++index) {
        text[digitPositions[index]] = "0123456789ABCDEF"[guid[index] >> 4];
        text[digitPositions[index] + 1] = "0123456789ABCDEF"[guid[index] & 0xF];
    }
    return text;
}

std::string buildIdText(const ModuleGuid& guid) {
    std::string text;
    for (const std::uint8_t byte : guid) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 0xF];
    }
    return text;
}

std::optional<ModuleGuid> parseGuid(std::string_view text) {
    if (text.size() != guidLength || text[8] != '-' || text[13] != '-' || text[18] != '-' ||
        text[23] != '-') {
        return std::nullopt;
    }
    ModuleGuid guid;
    for (std::size_t index = 0; index < guid.size(); ++index) {
        const int high = upperCaseDigit(text[digitPositions[index]]);
        const int low = upperCaseDigit(text[digitPositions[index] + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        guid[index] = static_cast<std::uint8_t>(high * 16 + low);
    }
    return guid;
}

FrameTable::FrameTable() {
    modules.emplace_back();
    frames.emplace_back();
}

ModuleId FrameTable::internModule(std::string_view fileName, const ModuleGuid& guid) {
    const std::size_t hash = std::hash<std::string_view>()(fileName) ^
                             std::hash<std::string_view>()(std::string_view(
                                 reinterpret_cast<const char*>(guid.data()), guid.size())) *
                                 3;
    const auto [first, last] = moduleIds.equal_range(hash);
    for (auto known = first; known != last; ++known) {
        const Module& module = modules[known->second];
        if (module.guid == guid && module.fileName == fileName) {
            return known->second;
        }
    }
    const auto id = static_cast<ModuleId>(modules.size());
    modules.push_back({std::string(fileName), guid});
    moduleIds.emplace(hash, id);
    return id;
}

FrameId FrameTable::intern(ModuleId module, std::uint64_t offset) {
    const auto [known, isNew] =
        frameIds.try_emplace({module, offset}, static_cast<FrameId>(frames.size()));
    if (isNew) {
        frames.push_back({module, offset});
    }
    return known->second;
}

std::string FrameTable::text(FrameId id) const {
    if (id == unknown) {
        return {};
    }
    char digits[16];
    char* const end = std::to_chars(digits, digits + sizeof(digits), frames[id].offset, 16).ptr;
    for (char* digit = digits; digit != end; ++digit) {
        *digit = static_cast<char>(*digit >= 'a' ? *digit - 'a' + 'A' : *digit);
    }
    const Module& module = moduleOf(id);
    return module.fileName + "+0x" + std::string(digits, end) + '{' + guidText(module.guid) + "};";
}

}  // namespace ThreadUtilities::companion
