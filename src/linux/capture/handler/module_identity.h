// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>

#include "platform/memory.h"

namespace ThreadUtilities::platform {

/// A number made of what tells the module at [begin, begin + size) from others: its headers and
/// notes, build-id included, the last entries of its unwind table index at `unwindHeader`, and its
/// place. 0 when it has no build-id where linkers put it, or these bytes cannot be read: without,
/// nothing says that what follows them is the same code. Two modules have the same number if one
/// was built from the other with the id set by hand, such that no function or table entry has
/// moved.
/// Never faults: a host may hide what nobody but the loader needs. One system call; two the first
/// time. Context: signal handler.
std::uint64_t moduleIdentity(std::uint64_t begin, std::uint64_t size,
                             std::uint64_t unwindHeader) noexcept;

/// The part of the module around `address` that can be read: by its program headers, and where
/// these cannot be read, as far as the system can read it just now. Never faults. One or more
/// system calls.
/// Context: signal handler.
ReadableRange mappedSegment(std::uint64_t begin, std::uint64_t size,
                            std::uint64_t address) noexcept;

}  // namespace ThreadUtilities::platform
