// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Run-time binding of the system's own libraries.

#include "platform/text.h"

namespace ThreadUtilities::platform {

/// The one folder that system libraries are loaded from; an empty path when it cannot be had.
struct SystemFolder {
    WideString path;
    WideChar separator = '\\';  ///< what separates the pieces of a path
    /// True where the system's own path syntax uses a character that is refused in file names.
    bool exemptFromRefusal = false;
};

SystemFolder systemLibraryFolder();

/// Whether the path names its file from the root of a volume, without search or context.
bool isAbsolutePath(WideStringView path) noexcept;

using LibraryHandle = void*;

/// Loads the library at exactly this path; null on failure. Adds one reference.
LibraryHandle openLibrary(const WideString& fullPath);
void* findEntryPoint(LibraryHandle library, const char* name);
/// Gives one reference back.
void closeLibrary(LibraryHandle library);

}  // namespace ThreadUtilities::platform
