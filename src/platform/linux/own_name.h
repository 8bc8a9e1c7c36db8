#pragma once

// The parts of a thread's name that begin and end with the thread.

#include <array>

namespace ThreadUtilities::platform {

/// A thread's name as the kernel keeps it: at most 15 bytes and a NUL, the rest zero.
using KernelName = std::array<char, 16>;

/// The calling thread's name in the kernel.
KernelName ownKernelName() noexcept;

/// A thread starts with its creator's name in the kernel; `inherited` is that name, which nobody
/// gave the calling thread.
void noteInheritedName(const KernelName& inherited) noexcept;

/// Gives back what is kept of the calling thread's name.
void forgetOwnName() noexcept;

}  // namespace ThreadUtilities::platform
