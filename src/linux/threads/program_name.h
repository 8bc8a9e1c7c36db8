// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include "linux/threads/thread_records.h"

namespace ThreadUtilities::platform {

/// Gives a record that no code has named the program's name, which means "not named".
void nameAfterProgram(ThreadRecord& record) noexcept;

}  // namespace ThreadUtilities::platform
