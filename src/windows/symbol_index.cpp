// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "windows/symbol_index.h"

#include <windows.h>

#include <cstddef>
#include <cstring>
#include <mutex>

#include "foundation/system_library.h"
#include "platform/system_library.h"

namespace ThreadUtilities::platform {
namespace {

// The published record of the index service, which the compiler's headers leave out.
struct SymsrvIndexInfo {
    DWORD sizeofstruct;
    WCHAR file[MAX_PATH + 1];
    BOOL stripped;
    DWORD timestamp;
    DWORD size;
    WCHAR dbgfile[MAX_PATH + 1];
    WCHAR pdbfile[MAX_PATH + 1];
    GUID guid;
    DWORD sig;
    DWORD age;
};
static_assert(sizeof(SymsrvIndexInfo) == 1608 && offsetof(SymsrvIndexInfo, guid) == 1584 &&
              offsetof(SymsrvIndexInfo, age) == 1604);

using SymSrvGetFileIndexInfoW = BOOL(WINAPI*)(const wchar_t* path, SymsrvIndexInfo* info,
                                              DWORD flags);

// The library behind the service must not be entered by two threads at once, therefore the mutex
// is held through the call.
std::mutex indexServiceMutex;
constinit SymSrvGetFileIndexInfoW boundService = nullptr;

/// A binding that failed is tried again at the next question.
SymSrvGetFileIndexInfoW bindService() {
    if (boundService == nullptr) {
        if (LibraryHandle library = loadSystemLibrary(L"dbghelp.dll")) {
            boundService = reinterpret_cast<SymSrvGetFileIndexInfoW>(
                findEntryPoint(library, "SymSrvGetFileIndexInfoW"));
        }
    }
    return boundService;
}

BOOL symSrvGetFileIndexInfo(const wchar_t* path, SymsrvIndexInfo* info, DWORD flags) {
    const std::lock_guard lock(indexServiceMutex);
    const SymSrvGetFileIndexInfoW service = bindService();
    return service != nullptr ? service(path, info, flags) : FALSE;
}

}  // namespace

std::optional<DebugGuid> symbolIndexGuid(const wchar_t* path) {
    SymsrvIndexInfo info{};
    info.sizeofstruct = sizeof(info);
    if (symSrvGetFileIndexInfo(path, &info, 0) == 0) {
        return std::nullopt;
    }
    DebugGuid guid;
    std::memcpy(guid.data(), &info.guid, guid.size());
    return guid;
}

}  // namespace ThreadUtilities::platform
