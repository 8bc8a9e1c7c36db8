// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// The entry point of the DLL: the loader's notices, handed on.

#include <windows.h>

#include "windows/entry.h"

// The loader calls this under its lock, on the thread that the notice concerns, one notice at a
// time; the library's static objects are ready before the first. It reports success whatever the
// handlers found: a library that cannot list threads is still of use.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD notice, LPVOID) {
    using namespace ThreadUtilities::platform;
    switch (notice) {
        case DLL_PROCESS_ATTACH:
            attachProcess();
            break;
        case DLL_THREAD_ATTACH:
            attachThread();
            break;
        case DLL_THREAD_DETACH:
            detachThread();
            break;
        default:
            break;
    }
    return TRUE;
}

namespace ThreadUtilities::platform {

// No code of the DLL runs before its entry point.
bool noticesArrive() noexcept {
    return true;
}

}  // namespace ThreadUtilities::platform
