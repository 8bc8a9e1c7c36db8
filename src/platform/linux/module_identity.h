#pragma once

#include <cstdint>

#include "foundation/checked_bytes.h"
#include "platform/thread_context.h"

namespace ThreadUtilities::platform {

/// How many bytes of a module these functions look at: the first page, in which linkers put the
/// headers and the notes.
inline constexpr std::uint64_t modulePageSize = 4096;

/// A number made of the build-id of the module that is mapped from `begin` on, its place and its
/// index header; 0 when its first page has no build-id. `page` is that page or a copy of it.
/// Context: signal handler.
std::uint64_t moduleIdentity(std::uint64_t begin, std::uint64_t unwindHeader,
                             ByteCursor page) noexcept;

/// The readable segment around `address` of the module at [begin, end), by its program headers.
/// Context: signal handler.
ReadableRange mappedSegment(std::uint64_t begin, std::uint64_t end, std::uint64_t address,
                            ByteCursor page) noexcept;

}  // namespace ThreadUtilities::platform
