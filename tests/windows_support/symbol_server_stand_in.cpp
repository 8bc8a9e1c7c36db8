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

/// A whole file in memory; empty when it cannot be read.
class MappedFile {
 public:
    explicit MappedFile(const wchar_t* path) {
        const HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                        nullptr, OPEN_EXISTING, 0, nullptr);
        if (file == INVALID_HANDLE_VALUE) {
            return;
        }
        const HANDLE mapping = CreateFileMappingW(file, nullptr, PAGE_READONLY, 0, 0, nullptr);
        if (mapping != nullptr) {
            view = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
            length = view != nullptr ? GetFileSize(file, nullptr) : 0;
            CloseHandle(mapping);
        }
        CloseHandle(file);
    }
    ~MappedFile() {
        if (view != nullptr) {
            UnmapViewOfFile(view);
        }
    }

    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    std::size_t size() const { return length; }
    const char* data() const { return static_cast<const char*>(view); }

 private:
    void* view = nullptr;
    std::size_t length = 0;
};

template <typename Value>
std::optional<Value> valueAt(const MappedFile& file, std::size_t offset) {
    if (offset > file.size() || file.size() - offset < sizeof(Value)) {
        return std::nullopt;
    }
    Value value;
    std::memcpy(&value, file.data() + offset, sizeof(value));
    return value;
}

/// Where in the file the bytes lie that are loaded at `address` of the image.
std::optional<std::size_t> fileOffset(const MappedFile& file, std::size_t headers, DWORD address) {
    const auto header = valueAt<IMAGE_NT_HEADERS64>(file, headers);
    std::size_t offset = headers + offsetof(IMAGE_NT_HEADERS64, OptionalHeader) +
                         header->FileHeader.SizeOfOptionalHeader;
    for (WORD index = 0; index < header->FileHeader.NumberOfSections; ++index) {
        const auto section = valueAt<IMAGE_SECTION_HEADER>(file, offset);
        if (!section) {
            return std::nullopt;
        }
        if (address >= section->VirtualAddress &&
            address - section->VirtualAddress < section->SizeOfRawData) {
            return section->PointerToRawData + (address - section->VirtualAddress);
        }
        offset += sizeof(IMAGE_SECTION_HEADER);
    }
    return std::nullopt;
}

struct CodeView {
    char signature[4];
    char guid[16];
    std::uint32_t age;
};

std::optional<CodeView> findCodeView(const MappedFile& file) {
    const auto dos = valueAt<IMAGE_DOS_HEADER>(file, 0);
    if (!dos || dos->e_magic != IMAGE_DOS_SIGNATURE) {
        return std::nullopt;
    }
    const auto headers = static_cast<std::size_t>(dos->e_lfanew);
    const auto header = valueAt<IMAGE_NT_HEADERS64>(file, headers);
    if (!header || header->Signature != IMAGE_NT_SIGNATURE) {
        return std::nullopt;
    }
    const auto& directory = header->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_DEBUG];
    for (DWORD done = 0; done < directory.Size; done += sizeof(IMAGE_DEBUG_DIRECTORY)) {
        const auto place = fileOffset(file, headers, directory.VirtualAddress + done);
        const auto entry = place ? valueAt<IMAGE_DEBUG_DIRECTORY>(file, *place) : std::nullopt;
        if (!entry || entry->Type != IMAGE_DEBUG_TYPE_CODEVIEW) {
            continue;
        }
        const auto codeView = valueAt<CodeView>(file, entry->PointerToRawData);
        if (codeView && std::memcmp(codeView->signature, "RSDS", 4) == 0) {
            return codeView;
        }
    }
    return std::nullopt;
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
    const auto codeView = findCodeView(MappedFile(path));
    if (!codeView) {
        return FALSE;
    }
    std::memcpy(bytes + guidOffset, codeView->guid, sizeof(codeView->guid));
    std::memcpy(bytes + ageOffset, &codeView->age, sizeof(codeView->age));
    return TRUE;
}
