// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Loading the system's own libraries, from the system's own folder and from nowhere else.

#include "platform/system_library.h"
#include "platform/text.h"

namespace ThreadUtilities {

/// Loads a library by its file name, used as it stands, from the system folder. Null when the name
/// could lead out of that folder, when the folder cannot be had, or when the system cannot load
/// the file. Every success adds one reference, which is the caller's to give back
/// (`platform::closeLibrary`). Any thread, also while the system's loader calls the library.
platform::LibraryHandle loadSystemLibrary(const WideString& fileName);

}  // namespace ThreadUtilities
