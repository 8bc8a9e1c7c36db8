// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Where the stacks of this process's threads lie, for readers that may not wait or allocate.

#include "platform/thread_context.h"

namespace ThreadUtilities::platform {

/// The stack of thread `threadId` in whole pages: memory that nobody else takes away for as long as
/// the thread lives, though the thread may have protected parts of it. False when it is not known,
/// which says nothing about the thread.
///
/// The answer holds for as long as the caller knows the thread to be alive: it is stopped, is
/// seen to be blocked, or is the caller itself.
///
/// Context: anywhere, a signal handler included; no allocation, no lock, no `thread_local`.
bool findThreadStack(unsigned int threadId, ReadableRange& out) noexcept;

/// The same with what the first thread's stack may have grown by since it was entered; empty when
/// it is not known. Pages of it may be unreadable, and those below the stack pointer not there.
ReadableRange threadStackBounds(unsigned int threadId) noexcept;

/// Enters the calling thread, which is not the process's first. A thread that cannot be entered
/// stays unknown.
void rememberOwnStack() noexcept;

/// Enters the process's first thread, whichever thread calls. Its range is the part that is mapped
/// at this moment; what the stack grows by later is not in it.
void rememberFirstThreadStack() noexcept;

/// Takes the calling thread out; the last thing that is done for an ending thread.
void forgetOwnStack() noexcept;

}  // namespace ThreadUtilities::platform
