// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// How several copies of this library in one process (in the program and in a plug-in, say) share
// the one action that a signal has.
//
// Each copy's handler passes on what is not its own to the action that was there before it. A copy
// must be able to see whether it is somewhere behind the installed action, because if it put itself
// in front of a chain that it is part of already, the chain would become a ring without the C
// library's action in it. Therefore an action of ours can be recognised, and tells the one before:
// in front of its restorer stand two words that nobody else has there, and the way to its link.

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace ThreadUtilities::platform {

/// An action as the kernel knows it: function and restorer tell actions apart.
struct ChainLink {
    std::atomic<std::uintptr_t> function{0};
    std::atomic<std::uintptr_t> restorer{0};
};

/// What stands before a restorer of ours, ending `chainMarkDistance` bytes below its end.
struct ChainMark {
    std::uint64_t first;
    std::uint64_t second;
    std::int64_t linkOffset;  ///< from this field to the copy's `ChainLink`
};

inline constexpr std::uint64_t chainMarkFirst = 0x9E1C'77A4'53D0'2B6F;
inline constexpr std::uint64_t chainMarkSecond = 0x41F8'D35B'0AE6'9C27;
inline constexpr std::size_t chainMarkDistance = 32;

/// The action that was there before this copy's; set before the handler is installed.
extern constinit ChainLink previousAction asm("tuCapturePreviousAction")
    __attribute__((visibility("hidden")));

/// This copy's restorer: returns from the handler to the interrupted code.
extern "C" __attribute__((visibility("hidden"))) void tuCaptureRestorer() noexcept;

/// More copies than any process has; ends a ring that damage has made.
inline constexpr unsigned int mostChainedHandlers = 16;

}  // namespace ThreadUtilities::platform
