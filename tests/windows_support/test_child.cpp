// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// A process for tests to look at: `test_child LIBRARY READY END` loads a library, sets one event
// and waits for the other.

#include <windows.h>

int main(int count, char** arguments) {
    const HANDLE ready = count > 3 ? OpenEventA(EVENT_MODIFY_STATE, FALSE, arguments[2]) : nullptr;
    const HANDLE end = count > 3 ? OpenEventA(SYNCHRONIZE, FALSE, arguments[3]) : nullptr;
    return ready != nullptr && LoadLibraryA(arguments[1]) != nullptr && SetEvent(ready) != 0 &&
                   WaitForSingleObject(end, 60000) == WAIT_OBJECT_0
               ? 0
               : 1;
}
