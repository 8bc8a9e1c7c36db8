// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "windows/system_information.h"

#include <windows.h>

#include "foundation/system_library.h"
#include "platform/system_library.h"

namespace ThreadUtilities::platform {
namespace {

using NtQuerySystemInformation = LONG(WINAPI*)(std::uint32_t informationClass, void* buffer,
                                               std::uint32_t length, std::uint32_t* reportedLength);

// Library and entry point are looked up once each; what failed stays failed.

LibraryHandle ntdll() {
    static const LibraryHandle library = loadSystemLibrary(L"Ntdll.dll");
    return library;
}

NtQuerySystemInformation queryOf(LibraryHandle library) {
    static const auto query = reinterpret_cast<NtQuerySystemInformation>(
        findEntryPoint(library, "NtQuerySystemInformation"));
    return query;
}

}  // namespace

std::int32_t querySystemInformation(std::uint32_t informationClass, void* buffer,
                                    std::uint32_t length, std::uint32_t* reportedLength) {
    const LibraryHandle library = ntdll();
    if (library == nullptr) {
        return E_FAIL;
    }
    const NtQuerySystemInformation query = queryOf(library);
    return query != nullptr ? query(informationClass, buffer, length, reportedLength) : E_FAIL;
}

}  // namespace ThreadUtilities::platform
