// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "foundation/system_library.h"

#include <algorithm>
#include <array>

#include "foundation/ascii.h"

namespace ThreadUtilities {
namespace {

constexpr std::array<WideStringView, 8> forbiddenPathParts = {
    wide<"..">, wide<"<">, wide<">">, wide<"\"">, wide<"/">, wide<"|">, wide<"?">, wide<"*">};

/// Neither empty, nor with ".." or any of < > " / | ? * in it.
bool isSafeLibraryPath(WideStringView path) {
    return !path.empty() &&
           std::none_of(forbiddenPathParts.begin(), forbiddenPathParts.end(),
                        [&](WideStringView part) { return path.find(part) != path.npos; });
}

WideString withTrailing(WideChar separator, WideString folder) {
    if (folder.empty() || folder.back() != separator) {
        folder.push_back(separator);
    }
    return folder;
}

}  // namespace

platform::LibraryHandle loadSystemLibrary(const WideString& fileName) {
    const platform::SystemFolder folder = platform::systemLibraryFolder();
    if (folder.path.empty()) {
        // Otherwise a file name alone, made absolute by the separator, would name the root folder.
        return nullptr;
    }
    const WideString fullPath = withTrailing(folder.separator, folder.path) + fileName;
    if (!isSafeLibraryPath(folder.exemptFromRefusal ? fileName : fullPath) ||
        !platform::isAbsolutePath(fullPath)) {
        return nullptr;
    }
    return platform::openLibrary(fullPath);
}

}  // namespace ThreadUtilities
