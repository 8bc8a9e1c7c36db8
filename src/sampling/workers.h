#pragma once

#include "sampling/sampling_run.h"

namespace ThreadUtilities {

// What a worker does from its registration until the run is over; each runs on a thread of its
// own. What a capture callback throws passes through.

/// Samples the threads of the calling process, the run's own workers left out, at `listInterval`.
/// Fetches the thread list anew at the end of each pass. Never sleeps.
void ownProcessWorker(SamplingRun& run);

/// Samples the focus thread at `focusInterval` through the callback. Waits while it is not due.
void focusThreadWorker(SamplingRun& run);

/// Samples the run's threads but the focus thread at `listInterval` through the callback. Waits
/// while the visited thread is not due.
void otherThreadsWorker(SamplingRun& run);

}  // namespace ThreadUtilities
