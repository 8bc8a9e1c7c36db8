// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/system_library.h"

#include <cstddef>

#include "foundation/utf_conversion.h"
#include "platform/text.h"
#include "scripted_platform/system_library_script.h"

namespace ThreadUtilities::platform {

using scripted::systemLibrary;

SystemFolder systemLibraryFolder() {
    return systemLibrary.folder;
}

WideChar pathSeparator() noexcept {
    return systemLibrary.separator;
}

bool isAbsolutePath(WideStringView path) noexcept {
    return systemLibrary.isAbsolute(path);
}

LibraryHandle openLibrary(const WideString& fullPath) {
    systemLibrary.opened.push_back(fullPath);
    const auto found = systemLibrary.libraries.find(fullPath);
    return found == systemLibrary.libraries.end() ? nullptr : found->second;
}

int convertUtf8ToWide(const char* text, int count, WideChar* out, int capacity) {
    return static_cast<int>(utf8ToUtf16({text, static_cast<std::size_t>(count)}, out,
                                        static_cast<std::size_t>(capacity)));
}

int convertWideToUtf8(const WideChar* text, int count, char* out, int capacity) {
    return static_cast<int>(utf16ToUtf8({text, static_cast<std::size_t>(count)}, out,
                                        static_cast<std::size_t>(capacity)));
}

}  // namespace ThreadUtilities::platform
