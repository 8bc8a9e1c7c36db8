// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// A thread in a known state, to be looked at by others.

#include <windows.h>

#include <atomic>

namespace ThreadUtilities::tests {

/// Runs a function, which ends in one of those below, on a thread of its own until the object ends.
class TargetThread {
 public:
    using Body = void (*)(TargetThread&);

    explicit TargetThread(Body threadBody) : body(threadBody) {
        const auto run = [](void* self) -> DWORD {
            auto& target = *static_cast<TargetThread*>(self);
            target.body(target);
            return 0;
        };
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

    /// How often the thread has been suspended and not resumed.
    unsigned int suspendCount() const {
        const DWORD before = SuspendThread(thread);
        ResumeThread(thread);
        return before;
    }

    static void block(TargetThread& self) {
        SetEvent(self.ready);
        WaitForSingleObject(self.finish, INFINITE);
        asm volatile("");  // a return address of this function stays on the stack meanwhile
    }
    static void spin(TargetThread& self) {
        SetEvent(self.ready);
        while (self.isWanted) {
        }
    }

 private:
    Body body;
    HANDLE ready = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE finish = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::atomic<bool> isWanted = true;
    HANDLE thread = nullptr;
    DWORD threadId = 0;
};

}  // namespace ThreadUtilities::tests
