// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Set by the program, found by name: called while the loader runs this module's initialiser.
extern "C" {
using InitialiserHook = void (*)();
__attribute__((weak)) extern InitialiserHook pluginInitialiserHook;

int pluginFunction() {
    return 42;
}
}

namespace {

__attribute__((constructor)) void initialise() {
    if (&pluginInitialiserHook != nullptr && pluginInitialiserHook != nullptr) {
        pluginInitialiserHook();
    }
}

}  // namespace
