// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include "sampling/sampling_run.h"

namespace ThreadUtilities {

// What a worker does from its registration until the run is over; each runs on a thread of its
// own. What a capture callback throws passes through.

/// Samples the threads of the calling process, the run's own workers left out, at `listInterval`.
/// Fetches the thread list anew at the end of each pass. After a pass that found no thread due it
/// waits until one is or a thread starts, and never for long without a look at the list.
void ownProcessWorker(SamplingRun& run);

/// What each of them does first: tells the starter that it is there.
void registerWorker(SamplingRun& run);

/// Samples the focus thread at `focusInterval` through the callback. Waits while it is not due.
void focusThreadWorker(SamplingRun& run);

/// Samples the run's threads but the focus thread at `listInterval` through the callback. Waits
/// while the visited thread is not due.
void otherThreadsWorker(SamplingRun& run);

}  // namespace ThreadUtilities
