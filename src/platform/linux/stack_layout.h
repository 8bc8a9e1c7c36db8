#pragma once

#include <cstdint>

// The stack pointer at the program's entry, kept by the dynamic linker.
extern "C" void* __libc_stack_end;  // NOLINT

namespace ThreadUtilities::platform {

/// How far down from its top the first thread's stack may be thought to reach. No other mapping
/// lies there: the kernel keeps at least 128 MB below the top free for the stack's growth, however
/// small its limit.
inline constexpr std::uint64_t firstStackReach = 64 << 20;

}  // namespace ThreadUtilities::platform
