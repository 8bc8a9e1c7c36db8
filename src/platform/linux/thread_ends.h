#pragma once

// Hearing of the end of a thread, on that thread, after its own code: return, `pthread_exit` and
// cancellation alike, detached or not.

namespace ThreadUtilities::platform {

/// From here on the end of the calling thread is heard of: the end notice runs, and what this
/// backend keeps for the thread is given back. False when the system has no room for that.
bool hearOfOwnEnd() noexcept;

/// What else runs on an ending thread; set once, at load.
void setEndNotice(void (*notice)() noexcept) noexcept;

/// Whether the process's first thread has ended while the process goes on. The system counts it
/// among the threads until the process ends.
bool firstThreadHasEnded() noexcept;

}  // namespace ThreadUtilities::platform
