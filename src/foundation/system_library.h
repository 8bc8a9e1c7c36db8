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

/// True for a path that is not empty and contains neither ".." nor any of < > " / | ? *.
bool isSafeLibraryPath(WideStringView path);

/// The folder with exactly the separator it has, or with the platform's (a backslash, or a slash)
/// appended where it does not end in one.
WideString withTrailingBackslash(WideString folder);

}  // namespace ThreadUtilities
