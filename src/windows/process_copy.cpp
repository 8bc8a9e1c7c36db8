// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/process_copy.h"

// This system never copies a running process.
namespace ThreadUtilities::platform {

RestartInCopy::RestartInCopy(void (*restartFunction)()) noexcept : restart(restartFunction) {}

}  // namespace ThreadUtilities::platform
