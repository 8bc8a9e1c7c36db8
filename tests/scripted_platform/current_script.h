// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

namespace ThreadUtilities::scripted {

/// What `platform::currentThreadId` and `currentProcessId` answer; the thread's id may be set for
/// one thread at a time, 0 lets every thread have a number of its own.
void setCurrentThreadId(unsigned int threadId);
void setCurrentProcessId(unsigned int processId);

}  // namespace ThreadUtilities::scripted
