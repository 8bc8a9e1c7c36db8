// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/StackTrace.h>

// A plug-in that holds a copy of the whole library.

extern "C" __attribute__((visibility("default"))) unsigned long long captureByCopy(
    unsigned int threadId) {
    unsigned long long frames[64];
    return ThreadUtilities::getStackTrace(threadId, frames, 64, true);
}
