// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Looks at another process, and samples it through both libraries.

#include <ThreadUtilities/ProcessCapture.h>
#include <ThreadUtilities/ThreadUtilities.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

int main() {
    const pid_t child = fork();
    if (child == 0) {
        for (;;) {
            pause();
        }
    }
    const auto processId = static_cast<unsigned int>(child);
    int result = 1;
    try {
        const ThreadUtilities::ProcessCapture capture(processId);
        std::vector<unsigned long long> frames;
        const auto look = capture.look(processId, frames, 64);
        const std::string report = ThreadUtilities::sampleProcessThread(
            processId, processId, std::chrono::seconds(1), std::chrono::milliseconds(50), capture);
        result = look.frameCount >= 2 && report.find("Thread ") != report.npos ? 0 : 1;
    } catch (const ThreadUtilities::ProcessCaptureError& error) {
        std::puts(error.what());
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return result;
}
