// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// A process for tests to look at: `test_child LIBRARY READY` loads a library, sets an event and
// stays for a while.

#include <windows.h>

int main(int count, char** arguments) {
    if (count > 2 && LoadLibraryA(arguments[1]) != nullptr) {
        SetEvent(OpenEventA(EVENT_MODIFY_STATE, FALSE, arguments[2]));
        Sleep(60000);
    }
}
