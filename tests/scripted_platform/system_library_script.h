#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/system_library.h"

namespace ThreadUtilities::scripted {

/// A system with drive paths, backslashes and no libraries until the test says otherwise.
struct SystemLibraryScript {
    platform::SystemFolder folder;
    WideChar separator = '\\';
    bool (*isAbsolute)(WideStringView path) = nullptr;  ///< null: a letter, a colon, a backslash
    /// What each full path loads as, and what each entry point of each library is.
    std::map<WideString, platform::LibraryHandle> libraries;
    std::map<std::pair<platform::LibraryHandle, std::string>, void*> entryPoints;

    std::vector<WideString> opened;  ///< every path asked for, loaded or not
    std::vector<platform::LibraryHandle> closed;
};

/// The script in force. Not to be changed while another thread loads libraries.
SystemLibraryScript& systemLibraryScript();
/// Puts the default script back, with the folder C:\Windows\system32.
void resetSystemLibraryScript();

}  // namespace ThreadUtilities::scripted
