// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// A frame of a module that may be unloaded.

extern "C" __attribute__((visibility("default"))) void callFromPlugin(void (*body)(void* state),
                                                                      void* state) {
    body(state);
    asm volatile("");  // so that the call is not turned into a jump
}
