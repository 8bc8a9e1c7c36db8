// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/memory.h"

#include <algorithm>
#include <cstring>

#include "scripted_platform/memory_script.h"

namespace ThreadUtilities {

std::vector<std::uint8_t> scripted::bytesOf(const std::vector<std::uint64_t>& words) {
    std::vector<std::uint8_t> bytes(words.size() * sizeof(std::uint64_t));
    std::memcpy(bytes.data(), words.data(), bytes.size());
    return bytes;
}

std::size_t platform::readOwnMemory(std::uint64_t address, void* out, std::size_t size) noexcept {
    ++scripted::memoryQuestions;
    auto after = scripted::memory.upper_bound(address);
    if (after == scripted::memory.begin()) {
        return 0;
    }
    const auto& [begin, bytes] = *--after;
    const std::uint64_t offset = address - begin;
    if (offset >= bytes.size()) {
        return 0;
    }
    const std::size_t available = std::min<std::size_t>(size, bytes.size() - offset);
    std::memcpy(out, bytes.data() + offset, available);
    return available;
}

bool platform::isReadableNow(std::uint64_t address) noexcept {
    std::uint64_t word = 0;
    return readOwnMemory(address, &word, sizeof(word)) == sizeof(word);
}

}  // namespace ThreadUtilities
