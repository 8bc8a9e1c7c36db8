#include "platform/memory.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "scripted_platform/memory_script.h"

namespace ThreadUtilities {
namespace {

std::map<std::uint64_t, std::vector<std::byte>>& mappings() {
    static std::map<std::uint64_t, std::vector<std::byte>> byAddress;
    return byAddress;
}

}  // namespace

namespace scripted {

void mapMemory(std::uint64_t address, std::vector<std::byte> bytes) {
    mappings()[address] = std::move(bytes);
}

void mapWords(std::uint64_t address, const std::vector<std::uint64_t>& words) {
    std::vector<std::byte> bytes(words.size() * sizeof(std::uint64_t));
    std::memcpy(bytes.data(), words.data(), bytes.size());
    mapMemory(address, std::move(bytes));
}

void unmapAllMemory() {
    mappings().clear();
}

}  // namespace scripted

std::size_t platform::readOwnMemory(std::uint64_t address, void* out, std::size_t size) noexcept {
    auto after = mappings().upper_bound(address);
    if (after == mappings().begin()) {
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

}  // namespace ThreadUtilities
