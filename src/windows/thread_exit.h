// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

namespace ThreadUtilities::platform {

/// Makes the calls that the calling thread asked for, and lets it ask for no more.
/// Context: the loader's notice of the thread's end.
void callAtThreadExit() noexcept;

}  // namespace ThreadUtilities::platform
