// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// A process for tests to look at, or to debug.
//
//   test_child wait LIBRARY READY END   loads a library, sets one event, waits for the other
//   test_child debugger                 exit status: what the library says of a debugger

#include <windows.h>

#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>

#include <cstdio>
#include <cstring>

namespace {

enum Answer { NoDebugger = 10, DebuggerAttached = 11, Inconsistent = 12 };

int waitWithLibrary(char** arguments) {
    const HANDLE ready = OpenEventA(EVENT_MODIFY_STATE, FALSE, arguments[1]);
    const HANDLE end = OpenEventA(SYNCHRONIZE, FALSE, arguments[2]);
    if (LoadLibraryA(arguments[0]) == nullptr || SetEvent(ready) == 0) {
        return 1;
    }
    return WaitForSingleObject(end, 60000) == WAIT_OBJECT_0 ? 0 : 1;
}

int tellAboutDebugger() {
    constexpr unsigned long long untouched = 0x5555;
    unsigned long long frames[64] = {untouched};
    const auto count =
        ThreadUtilities::getStackTrace(ThreadUtilities::getThreadId(), frames, 64, true);
    if (IsDebuggerPresent() == 0) {
        return count > 0 && frames[0] != untouched ? NoDebugger : Inconsistent;
    }
    return count == 0 && frames[0] == untouched ? DebuggerAttached : Inconsistent;
}

}  // namespace

int main(int count, char** arguments) {
    if (count == 5 && std::strcmp(arguments[1], "wait") == 0) {
        return waitWithLibrary(arguments + 2);
    }
    if (count == 2 && std::strcmp(arguments[1], "debugger") == 0) {
        return tellAboutDebugger();
    }
    std::fputs("usage: test_child wait LIBRARY READY END | debugger\n", stderr);
    return 2;
}
