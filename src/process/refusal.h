// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Why a process cannot be looked at, in one line for the one who asked.

#include "process/task_files.h"

namespace ThreadUtilities::process {

/// Throws `ProcessCaptureError` where the process is missing, is none, or may not be looked at.
void requireLookable(unsigned int processId, const ProcessFolder& folder);

}  // namespace ThreadUtilities::process
