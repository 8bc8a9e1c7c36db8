// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include "linux/threads/thread_records.h"

namespace ThreadUtilities::platform {

/// What is done for a thread before its own code runs. Takes over the record, in which its name and
/// its function stand.
void beginThread(ThreadRecord* record) noexcept;

/// False as long as the library has not been loaded to its end; threads are then not announced.
bool isLoaded() noexcept;

}  // namespace ThreadUtilities::platform
