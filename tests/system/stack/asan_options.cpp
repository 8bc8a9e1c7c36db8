// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// AddressSanitizer gives every thread an alternate signal stack. The handler would run there, and
// where it may not call the system it knows no page of the thread's own stack then: hosts whose
// threads have no such stack would not be tested.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {  // NOLINT
    return "use_sigaltstack=0";
}
