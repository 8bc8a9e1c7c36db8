#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ThreadUtilities::scripted {

/// Makes `bytes` readable at `address` through `platform::readOwnMemory`; nothing else is.
void mapMemory(std::uint64_t address, std::vector<std::byte> bytes);
/// The same for 64-bit words.
void mapWords(std::uint64_t address, const std::vector<std::uint64_t>& words);
void unmapAllMemory();

}  // namespace ThreadUtilities::scripted
