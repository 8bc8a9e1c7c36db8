// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <type_traits>

namespace ThreadUtilities {

/// A fork child that runs `body`, for what a test must not do to its own process. It ends
/// with the body's result (well, where that is nothing or true), with an alarm when it hangs, and
/// with this object at the latest.
class ForkChild {
 public:
    template <typename Body>
    explicit ForkChild(Body body) : pid(fork()) {
        if (pid == 0) {
            alarm(120);
            if constexpr (std::is_void_v<decltype(body())>) {
                body();
                _exit(0);
            } else if constexpr (std::is_same_v<decltype(body()), bool>) {
                _exit(body() ? 0 : 1);
            } else {
                _exit(body());
            }
        }
    }
    ~ForkChild() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    ForkChild(const ForkChild&) = delete;
    ForkChild& operator=(const ForkChild&) = delete;

    unsigned int id() const { return static_cast<unsigned int>(pid); }

    /// Waits for its end; its exit code, or -1 where a signal ended it.
    int result() {
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    bool endedWell() { return result() == 0; }

    /// Waits until it has ended, and leaves it unburied.
    void waitForEnd() const {
        siginfo_t info;
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    }

 private:
    pid_t pid;
};

template <typename Body>
int runInForkChild(Body body) {
    return ForkChild(body).result();
}

}  // namespace ThreadUtilities
