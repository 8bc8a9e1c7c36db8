// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <map>
#include <vector>

#include "platform/system_library.h"

namespace ThreadUtilities::scripted {

/// A system with no folder and no libraries until the test says otherwise.
struct SystemLibraryScript {
    platform::SystemFolder folder;
    bool (*isAbsolute)(WideStringView path) = [](WideStringView path) {
        return path.size() >= 3 && path[0] >= 'A' && path[0] <= 'Z' && path[1] == ':' &&
               path[2] == '\\';
    };
    std::map<WideString, platform::LibraryHandle> libraries;  ///< by the full path
    std::vector<WideString> opened;                           ///< every path asked for
};
inline SystemLibraryScript systemLibrary;

}  // namespace ThreadUtilities::scripted
