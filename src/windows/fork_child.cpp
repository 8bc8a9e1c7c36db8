// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/fork_child.h"

// This system has no fork.
namespace ThreadUtilities::platform {

RestartInForkChild::RestartInForkChild(void (*restartFunction)()) noexcept
    : restart(restartFunction) {}

}  // namespace ThreadUtilities::platform
