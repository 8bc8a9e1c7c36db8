#pragma once

#include <cstdint>

#include "platform/thread_context.h"

namespace ThreadUtilities::platform {

/// A number made of the build-id of the module mapped at [begin, end), its place and its index
/// header; 0 when the module has no build-id in its first page. Reads that page and nothing else.
/// Context: signal handler.
std::uint64_t moduleIdentity(std::uint64_t begin, std::uint64_t end,
                             std::uint64_t unwindHeader) noexcept;

/// The readable segment of that module around `address`, from its program headers.
/// Context: signal handler.
ReadableRange mappedSegment(std::uint64_t begin, std::uint64_t end, std::uint64_t address) noexcept;

}  // namespace ThreadUtilities::platform
