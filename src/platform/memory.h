#pragma once

// Reads of this process's memory that may turn out not to be mapped.

#include <cstddef>
#include <cstdint>

namespace ThreadUtilities::platform {

/// Copies up to `size` bytes that begin at `address` of the calling process. Returns how many
/// bytes were copied from the front: fewer than `size`, possibly 0, where the memory beyond is
/// not readable. Never faults. No allocation, no lock; safe while the thread whose memory it is
/// stands still, and in a signal handler.
std::size_t readOwnMemory(std::uint64_t address, void* out, std::size_t size) noexcept;

}  // namespace ThreadUtilities::platform
