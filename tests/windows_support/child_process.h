// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Processes of the tests' own.

#include <windows.h>

#include <string>

namespace ThreadUtilities::tests {

/// A process, ended by force with the object if it has not ended by itself.
class ChildProcess {
 public:
    ChildProcess(std::string commandLine, DWORD flags) {
        STARTUPINFOA startup{};
        startup.cb = sizeof(startup);
        isStarted = CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, FALSE, flags,
                                   nullptr, nullptr, &startup, &information) != 0;
    }
    ~ChildProcess() {
        if (isStarted) {
            TerminateProcess(information.hProcess, 99);
            WaitForSingleObject(information.hProcess, INFINITE);
            CloseHandle(information.hThread);
            CloseHandle(information.hProcess);
        }
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool hasStarted() const { return isStarted; }
    unsigned int id() const { return information.dwProcessId; }
    unsigned int primaryThreadId() const { return information.dwThreadId; }
    HANDLE primaryThread() const { return information.hThread; }

    DWORD waitForExitStatus() const {
        WaitForSingleObject(information.hProcess, INFINITE);
        DWORD status = 0;
        GetExitCodeProcess(information.hProcess, &status);
        return status;
    }

 private:
    PROCESS_INFORMATION information{};
    bool isStarted = false;
};

}  // namespace ThreadUtilities::tests
