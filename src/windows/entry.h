// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What the library does at the loader's notices, and how they reach it: through the entry point of
// the DLL (dll_entry.cpp), or through a callback of the program or foreign DLL that contains the
// library (program_entry.cpp).

namespace ThreadUtilities::platform {

/// Whether notices arrive: true from the notice of the process on.
///
/// Defined by the entry itself, so that a linker which takes the library from an archive takes the
/// entry along with all code that relies on the notices, although nobody calls an entry.
bool noticesArrive() noexcept;

// For the two entries. Nothing is thrown: without memory for its list of threads the library is
// still of use, and an exception must not reach the loader.

/// Keeps the module loaded until the process ends, and begins the list of threads.
void attachProcess() noexcept;
void attachThread() noexcept;
/// Also makes the calls that the thread asked for.
void detachThread() noexcept;

}  // namespace ThreadUtilities::platform
