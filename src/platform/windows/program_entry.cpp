// The same notices for a program that contains the library instead of loading it. A program has no
// entry point for threads; its table of per-thread callbacks does what a DLL's entry point does.

#include <windows.h>

#include "platform/notices.h"
#include "platform/windows/hand_on.h"

namespace {

using namespace ThreadUtilities::platform;

// The loader runs the callbacks for the process before any static object of the program exists, so
// the first notice comes from a static object instead. The last priority: behind those objects of
// the library that need a constructor here, mutexes for example.
struct ProcessAttach {
    ProcessAttach() {
        handOn(onProcessAttach);
        isAttached = true;
    }
    static constinit inline bool isAttached = false;
};
const ProcessAttach processAttach;

void NTAPI onNotice(PVOID, DWORD notice, PVOID) {
    if (!ProcessAttach::isAttached) {
        return;
    }
    if (notice == DLL_THREAD_ATTACH) {
        handOn(onThreadAttach);
    } else if (notice == DLL_THREAD_DETACH) {
        handOn(onThreadDetach);
    }
}

}  // namespace

// The linker sorts the sections named .CRT$XL* into the table that the loader reads. "Y" comes
// behind the callbacks of the compiler's own run-time, as a DLL's entry point does.
extern "C" {
__attribute__((section(".CRT$XLY"), used)) PIMAGE_TLS_CALLBACK threadUtilitiesNotice = onNotice;
}
