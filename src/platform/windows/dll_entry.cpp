// The entry point of the DLL: the loader's notices, handed on.

#include <windows.h>

#include "platform/notices.h"
#include "platform/windows/hand_on.h"

// The loader calls this under its lock, on the thread that the notice concerns, one notice at a
// time; the library's static objects are ready before the first. It reports success whatever the
// handlers found: a library that cannot list threads is still of use.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD notice, LPVOID) {
    using namespace ThreadUtilities::platform;
    switch (notice) {
        case DLL_PROCESS_ATTACH:
            handOn(onProcessAttach);
            break;
        case DLL_THREAD_ATTACH:
            handOn(onThreadAttach);
            break;
        case DLL_THREAD_DETACH:
            handOn(onThreadDetach);
            break;
        default:
            break;
    }
    return TRUE;
}
