// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Where libdwfl finds a module's debug information that is in a file of its own.

#include <elfutils/libdwfl.h>

#include <filesystem>
#include <vector>

namespace ThreadUtilities::companion {

struct DebugFileSearch {
    /// Below which the user has debug information; searched before the system's.
    std::vector<std::filesystem::path> folders;
    /// A server of DEBUGINFOD_URLS did not answer in time. Then none is asked any more: each module
    /// would wait as long again.
    bool isServerSilent = false;
    /// A server gave a file with another build-id for the last module.
    bool isServerWrong = false;
};

/// The callback `find_debuginfo` of libdwfl. The module's user data is the DebugFileSearch.
int findDebugFile(Dwfl_Module* module, void** userData, const char* moduleName, Dwarf_Addr base,
                  const char* fileName, const char* debugLink, GElf_Word checksum,
                  char** debugFileName);

}  // namespace ThreadUtilities::companion
