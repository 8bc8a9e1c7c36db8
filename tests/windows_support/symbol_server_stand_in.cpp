// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// A dbghelp.dll with one function, the symbol server's index service: Wine's own is a stub that
// ends the process. Tells the GUID of a module file's CodeView record (signature "RSDS"), and
// refuses a question that is not asked as the service wants it.

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace {

constexpr std::size_t recordSize = 1608;
constexpr std::size_t guidOffset = 1584;
constexpr std::size_t ageOffset = 1604;

constexpr std::string_view signature = "RSDS";
constexpr std::size_t guidSize = 16;

/// Copies the GUID and the age from the content of a module file: the linker writes them behind all
/// code, which may hold the signature as well.
BOOL copyCodeView(std::string_view file, char* record) {
    const auto found = file.rfind(signature);
    if (found == file.npos || file.size() - found < 64) {
        return FALSE;
    }
    const char* const guid = &file[found + signature.size()];
    std::memcpy(record + guidOffset, guid, guidSize);
    std::memcpy(record + ageOffset, guid + guidSize, sizeof(std::uint32_t));
    return TRUE;
}

bool isAskedProperly(const char* record, DWORD flags) {
    std::uint32_t size = 0;
    std::memcpy(&size, record, sizeof(size));
    return size == recordSize && flags == 0 &&
           std::all_of(record + sizeof(size), record + recordSize,
                       [](char byte) { return byte == 0; });
}

}  // namespace

extern "C" __declspec(dllexport) BOOL WINAPI SymSrvGetFileIndexInfoW(const wchar_t* path,
                                                                     void* record, DWORD flags) {
    const HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                    nullptr, OPEN_EXISTING, 0, nullptr);
    const HANDLE mapping = CreateFileMappingW(file, nullptr, PAGE_READONLY, 0, 0, nullptr);
    const auto* const content =
        static_cast<const char*>(MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0));
    auto* const bytes = static_cast<char*>(record);
    const BOOL isFound = content != nullptr && isAskedProperly(bytes, flags) &&
                         copyCodeView({content, GetFileSize(file, nullptr)}, bytes);
    UnmapViewOfFile(content);
    CloseHandle(mapping);
    CloseHandle(file);
    return isFound;
}
