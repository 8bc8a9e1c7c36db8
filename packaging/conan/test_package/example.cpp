// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/ThreadUtilities.h>

#include <iostream>

int main() {
    ThreadUtilities::setThreadName("example");
    unsigned long long frames[16];
    const auto count =
        ThreadUtilities::getStackTrace(ThreadUtilities::getThreadId(), frames, 16, true);
    std::cout << ThreadUtilities::getThreadName() << ": " << count << " frames\n";
    return count > 0 ? 0 : 1;
}
