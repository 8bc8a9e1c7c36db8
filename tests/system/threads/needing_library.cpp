// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// A library that needs the one under test, which the program itself does not know of.
#include <ThreadUtilities/Threads.h>

extern "C" __attribute__((visibility("default"))) unsigned int needThreadUtilities() {
    return ThreadUtilities::getMainThreadId();
}
