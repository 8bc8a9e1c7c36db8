// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// A dbghelp.dll with one function, the symbol server's index service: Wine's own is a stub that
// ends the process. Tells the GUID of a module file's CodeView record (PE/COFF debug directory,
// type 2, signature "RSDS"), and refuses a question that is not asked as the service wants it.

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>

namespace {

constexpr std::size_t recordSize = 1608;
constexpr std::size_t guidOffset = 1584;
constexpr std::size_t ageOffset = 1604;

struct CodeView {
    char signature[4];
    char guid[16];
    std::uint32_t age;
};

/// Of a file that is mapped as the loader does it.
std::optional<CodeView> findCodeView(const char* image) {
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(image);
    const auto* headers = reinterpret_cast<const IMAGE_NT_HEADERS64*>(image + dos->e_lfanew);
    const auto& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_DEBUG];
    const auto* entries =
        reinterpret_cast<const IMAGE_DEBUG_DIRECTORY*>(image + directory.VirtualAddress);
    for (std::size_t index = 0; index < directory.Size / sizeof(*entries); ++index) {
        CodeView codeView;
        std::memcpy(&codeView, image + entries[index].AddressOfRawData, sizeof(codeView));
        if (entries[index].Type == IMAGE_DEBUG_TYPE_CODEVIEW &&
            std::memcmp(codeView.signature, "RSDS", 4) == 0) {
            return codeView;
        }
    }
    return std::nullopt;
}

std::optional<CodeView> codeViewOf(const wchar_t* path) {
    const HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                    nullptr, OPEN_EXISTING, 0, nullptr);
    const HANDLE mapping =
        CreateFileMappingW(file, nullptr, PAGE_READONLY | SEC_IMAGE, 0, 0, nullptr);
    const void* image = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
    const auto found =
        image != nullptr ? findCodeView(static_cast<const char*>(image)) : std::nullopt;
    UnmapViewOfFile(image);
    CloseHandle(mapping);
    CloseHandle(file);
    return found;
}

bool isAskedProperly(const unsigned char* record, DWORD flags) {
    std::uint32_t size = 0;
    std::memcpy(&size, record, sizeof(size));
    return size == recordSize && flags == 0 &&
           std::all_of(record + sizeof(size), record + recordSize,
                       [](unsigned char byte) { return byte == 0; });
}

}  // namespace

extern "C" __declspec(dllexport) BOOL WINAPI SymSrvGetFileIndexInfoW(const wchar_t* path,
                                                                     void* record, DWORD flags) {
    auto* bytes = static_cast<unsigned char*>(record);
    if (!isAskedProperly(bytes, flags)) {
        return FALSE;
    }
    const auto codeView = codeViewOf(path);
    if (!codeView) {
        return FALSE;
    }
    std::memcpy(bytes + guidOffset, codeView->guid, sizeof(codeView->guid));
    std::memcpy(bytes + ageOffset, &codeView->age, sizeof(codeView->age));
    return TRUE;
}
