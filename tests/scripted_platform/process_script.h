// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

namespace ThreadUtilities::scripted {

/// What `platform::currentProcessId` answers.
inline constexpr unsigned int ownProcessId = 77;

/// What `platform::currentThreadId` answers, for one thread at a time; 0 lets every thread have a
/// number of its own.
inline constinit thread_local unsigned int currentThreadId = 0;

inline bool debuggerAttached = false;

/// Whether requests for a call at thread exit are refused. Not changed while other threads run.
inline bool threadExitCallsAreRefused = false;

}  // namespace ThreadUtilities::scripted
