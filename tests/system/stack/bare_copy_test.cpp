// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/Threads.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/allocations.h"

namespace ThreadUtilities {
namespace {

// A copy that nobody announces starts afresh at its first question, which a signal handler in it
// may ask; the heap may be locked by a thread that it does not have.
TEST(ABareCopy, StartsAfreshWithoutTheHeap) {
    const auto child = static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
    if (child == 0) {
        alarm(120);
        const allocations::FailAfter fail(0);
        _exit(getThreadId() == static_cast<unsigned int>(getpid()) ? 0 : 1);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace ThreadUtilities
