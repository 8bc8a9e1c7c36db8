// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// The same notices for a program that contains the library instead of loading it. A program has no
// entry point for threads; its table of per-thread callbacks does what a DLL's entry point does.

#include <windows.h>

#include "windows/entry.h"

namespace {

using namespace ThreadUtilities::platform;

// The loader runs the callbacks for the process before any static object of the program exists, so
// the first notice comes from a static object instead: behind the objects of the library that need
// a constructor here, mutexes for example, and before those of the program, which may call it.
struct ProcessAttach {
    ProcessAttach() {
        attachProcess();
        isAttached = true;
    }
    static constinit inline bool isAttached = false;
};
[[gnu::init_priority(103)]] const ProcessAttach processAttach;

void NTAPI onNotice(PVOID, DWORD notice, PVOID) {
    if (!ProcessAttach::isAttached) {
        return;
    }
    if (notice == DLL_THREAD_ATTACH) {
        attachThread();
    } else if (notice == DLL_THREAD_DETACH) {
        detachThread();
    }
}

}  // namespace

// The linker sorts the sections named .CRT$XL* into the table that the loader reads. "Y" comes
// behind the callbacks of the compiler's own run-time, as a DLL's entry point does.
extern "C" {
__attribute__((section(".CRT$XLY"), used)) PIMAGE_TLS_CALLBACK threadUtilitiesNotice = onNotice;
}

namespace ThreadUtilities::platform {

bool noticesArrive() noexcept {
    return ProcessAttach::isAttached;
}

}  // namespace ThreadUtilities::platform
