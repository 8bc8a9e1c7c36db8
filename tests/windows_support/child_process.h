// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Processes of the tests' own.

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

namespace ThreadUtilities::tests {

/// A process, ended by force with the object.
class ChildProcess {
 public:
    ChildProcess(std::string commandLine, DWORD flags) {
        STARTUPINFOA startup{};
        startup.cb = sizeof(startup);
        EXPECT_TRUE(CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, FALSE, flags,
                                   nullptr, nullptr, &startup, &information));
    }
    ~ChildProcess() {
        TerminateProcess(information.hProcess, 99);
        WaitForSingleObject(information.hProcess, INFINITE);
        CloseHandle(information.hThread);
        CloseHandle(information.hProcess);
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    unsigned int id() const { return information.dwProcessId; }
    unsigned int primaryThreadId() const { return information.dwThreadId; }
    HANDLE primaryThread() const { return information.hThread; }

 private:
    PROCESS_INFORMATION information{};
};

}  // namespace ThreadUtilities::tests
