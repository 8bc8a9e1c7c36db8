// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/system_library.h"

#include <windows.h>

#include <shlobj.h>

namespace ThreadUtilities::platform {
namespace {

// FOLDERID_System; written out so that no library of identifiers is linked.
constexpr GUID systemFolderId = {
    0x1AC14E77, 0x02E7, 0x4E5D, {0xB7, 0x44, 0x2E, 0xB1, 0xAE, 0x51, 0x98, 0xB7}};

struct TaskMemory {
    ~TaskMemory() {
        // Also after a failed call: the system may have handed out a text all the same.
        if (text != nullptr) {
            CoTaskMemFree(text);
        }
    }
    PWSTR text = nullptr;
};

bool isDriveLetter(WideChar unit) noexcept {
    return (unit >= L'A' && unit <= L'Z') || (unit >= L'a' && unit <= L'z');
}

}  // namespace

SystemFolder systemLibraryFolder() {
    TaskMemory folder;
    const HRESULT result =
        SHGetKnownFolderPath(systemFolderId, KF_FLAG_DONT_VERIFY, nullptr, &folder.text);
    if (result < 0 || folder.text == nullptr) {
        return {};
    }
    return {folder.text};
}

bool isAbsolutePath(WideStringView path) noexcept {
    return path.size() >= 3 && isDriveLetter(path[0]) && path[1] == L':' && path[2] == L'\\';
}

LibraryHandle openLibrary(const WideString& fullPath) {
    return LoadLibraryExW(fullPath.c_str(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
}

void* findEntryPoint(LibraryHandle library, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}

void closeLibrary(LibraryHandle library) {
    FreeLibrary(static_cast<HMODULE>(library));
}

}  // namespace ThreadUtilities::platform
