// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What the system tells the library. The backend calls these; the thread list defines them.

namespace ThreadUtilities::platform {

/// Once, on the thread that loads the library, before any other code of the library is asked for
/// anything. Also in a fork child, on its only thread.
void onProcessAttach();

/// On a new thread, before its own code runs.
void onThreadAttach();

/// After a thread's own code: on the ending thread, or from another one where the system tells of
/// an end only afterwards.
void onThreadDetach(unsigned int threadId);

}  // namespace ThreadUtilities::platform
