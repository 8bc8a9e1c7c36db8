// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <array>

namespace ThreadUtilities::platform {

struct ThreadRecord;

/// A thread's name as the kernel keeps it: at most 15 bytes and a NUL, the rest zero.
using KernelName = std::array<char, 16>;

/// The calling thread's name in the kernel.
KernelName ownKernelName() noexcept;

/// Gives a record that no code has named the program's name, which means "not named".
void nameAfterProgram(ThreadRecord& record) noexcept;

}  // namespace ThreadUtilities::platform
