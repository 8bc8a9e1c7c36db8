// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/system_library.h"

#include "platform/text.h"
#include "scripted_platform/system_library_script.h"

namespace ThreadUtilities::platform {

using scripted::systemLibrary;

SystemFolder systemLibraryFolder() {
    return systemLibrary.folder;
}

bool isAbsolutePath(WideStringView path) noexcept {
    return systemLibrary.isAbsolute(path);
}

LibraryHandle openLibrary(const WideString& fullPath) {
    systemLibrary.opened.push_back(fullPath);
    const auto found = systemLibrary.libraries.find(fullPath);
    return found == systemLibrary.libraries.end() ? nullptr : found->second;
}

}  // namespace ThreadUtilities::platform
