#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

namespace ThreadUtilities {

/// A copy of this process that runs `body`, which must not return to the test.
class ChildProcess {
 public:
    template <typename Body>
    explicit ChildProcess(Body body) : pid(fork()) {
        if (pid == 0) {
            body();
            _exit(0);
        }
    }
    ~ChildProcess() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    unsigned int id() const { return static_cast<unsigned int>(pid); }

    /// Waits until the state letter in /proc/pid/stat is this one (a child that never gets there
    /// is the test runner's timeout).
    void waitForState(char state) const {
        for (std::string text; text.find(std::string(") ") + state) == std::string::npos;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
            std::getline(file, text);
        }
    }

    /// Waits until its last thread has ended, which may not be the first one.
    void waitForEnd() const {
        siginfo_t end;
        waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOWAIT);
    }

 private:
    pid_t pid;
};

}  // namespace ThreadUtilities
