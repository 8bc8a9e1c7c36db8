// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>

// The stack pointer at the program's entry, kept by the dynamic linker.
extern "C" void* __libc_stack_end;  // NOLINT

namespace ThreadUtilities::platform {

/// How far down from its top the first thread's stack may be thought to reach. No other mapping
/// lies there: the kernel keeps at least 128 MB below the top free for the stack's growth, however
/// small its limit.
inline constexpr std::uint64_t firstStackReach = 64 << 20;

/// How far down from its top the stack of a later thread is thought to reach that was not heard of:
/// as far as stacks do unless a program asks for larger ones.
inline constexpr std::uint64_t usualStackReach = 8 << 20;

}  // namespace ThreadUtilities::platform
