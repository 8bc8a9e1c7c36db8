// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

namespace ThreadUtilities::platform {

/// On a thread whose own code has not begun to end: from here on its rounds of exit destructors are
/// counted from the first. Its exit calls can then wait for the second round, and one that could
/// never be made is refused.
void countOwnExitRounds() noexcept;

}  // namespace ThreadUtilities::platform
