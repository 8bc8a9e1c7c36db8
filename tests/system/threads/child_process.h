#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ThreadUtilities {

/// Runs `body` in a copy of this process and returns its result, or -1 where it ended otherwise.
/// A copy that hangs is ended by an alarm.
template <class Body>
int runInCopy(Body body) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);
        _exit(body());
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace ThreadUtilities
