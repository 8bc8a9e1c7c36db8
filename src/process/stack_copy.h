// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Copying the top of a thread's stack, with two system calls and no wait; what may be copied so.

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/memory.h"

namespace ThreadUtilities::process {

/// Copies what lies around the stack pointer to the front of `room`: the red zone below it, and
/// upward as far as pages follow one another that have contents. `pageMap`: the descriptor of the
/// process's file "pagemap", or negative. Returns what was copied; empty where the stack pointer's
/// page has no contents.
///
/// Of a page without contents nobody but a pager may know what belongs there (userfaultfd(2)), and
/// whoever reads it waits for that pager, which may be the very thread that is stopped.
///
/// Context: the thread may be stopped; no allocation, no lock, no log.
platform::ReadableRange copyStack(unsigned int threadId, int pageMap, std::uint64_t stackPointer,
                                  std::span<std::byte> room) noexcept;

/// How many of the bytes from `address` on lie on pages that have contents: all of them where the
/// page map does not say.
std::size_t providedBytes(int pageMap, std::uint64_t address, std::size_t size) noexcept;

inline constexpr std::size_t largestStackCopy = std::size_t{64} * 1024;

}  // namespace ThreadUtilities::process
