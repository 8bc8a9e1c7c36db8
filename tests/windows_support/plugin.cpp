// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// A DLL that tests load: one function, and a build id that the linker is told.

extern "C" __declspec(dllexport) void callThrough(void (*function)(void*), void* argument) {
    function(argument);
    // Not the last act: the call must leave a return address here.
    asm volatile("");
}
