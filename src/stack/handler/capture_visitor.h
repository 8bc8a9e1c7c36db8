// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The step of a capture that looks at the other thread's context.

#include "platform/thread_context.h"

namespace ThreadUtilities {

/// A `platform::ContextVisitor`: walks the stack from `context` into `room`.
/// Context: may be a signal handler on the visited thread; no allocation, no lock, no log.
platform::VisitorAnswer collectFrames(const platform::ThreadContext& context,
                                      platform::VisitRoom& room) noexcept;

}  // namespace ThreadUtilities
