// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// A thread in a known state, to be looked at by others.

#include <windows.h>

#include <atomic>

namespace ThreadUtilities::tests {

inline HANDLE newEvent() {
    return CreateEventW(nullptr, TRUE, FALSE, nullptr);
}

/// Runs a function on a thread of its own, and ends it with the object: the function gets the
/// object and returns when `waitForEnd` does or `mayRun` is false.
class TargetThread {
 public:
    using Body = void (*)(TargetThread&);

    explicit TargetThread(Body threadBody) : body(threadBody) {
        thread = CreateThread(nullptr, 0, run, this, 0, &threadId);
        WaitForSingleObject(ready, INFINITE);
    }
    ~TargetThread() {
        end();
        CloseHandle(thread);
        CloseHandle(ready);
        CloseHandle(finish);
    }

    TargetThread(const TargetThread&) = delete;
    TargetThread& operator=(const TargetThread&) = delete;

    void end() {
        isWanted = false;
        SetEvent(finish);
        WaitForSingleObject(thread, INFINITE);
    }

    unsigned int id() const { return threadId; }
    HANDLE handle() const { return thread; }

    // For the body.
    void tellReady() { SetEvent(ready); }
    void waitForEnd() { WaitForSingleObject(finish, INFINITE); }
    bool mayRun() const { return isWanted; }

    /// How often the thread has been suspended and not resumed.
    unsigned int suspendCount() const {
        const DWORD before = SuspendThread(thread);
        ResumeThread(thread);
        return before;
    }

    static void block(TargetThread& self) {
        self.tellReady();
        self.waitForEnd();
        asm volatile("");  // a return address of this function stays on the stack meanwhile
    }
    static void spin(TargetThread& self) {
        self.tellReady();
        while (self.mayRun()) {
        }
    }

 private:
    static DWORD WINAPI run(void* self) {
        auto& target = *static_cast<TargetThread*>(self);
        target.body(target);
        return 0;
    }

    Body body;
    HANDLE ready = newEvent();
    HANDLE finish = newEvent();
    std::atomic<bool> isWanted = true;
    HANDLE thread = nullptr;
    DWORD threadId = 0;
};

}  // namespace ThreadUtilities::tests
