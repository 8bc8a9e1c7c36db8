// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/module_file.h"

#include <elf.h>
#include <sys/types.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "foundation/checked_bytes.h"
#include "linux/capture/handler/elf_headers.h"
#include "linux/modules/mapped_file.h"

namespace ThreadUtilities::process {
namespace {

using platform::ProgramHeader;

using FileHeader = std::array<std::uint8_t, sizeof(Elf64_Ehdr)>;

template <class Number>
Number fieldAt(const FileHeader& header, std::size_t offset) noexcept {
    return loadLittleEndian<Number>(header.data() + offset);
}

/// Whether the file has these program headers.
bool hasHeaders(const platform::Descriptor& file, const platform::ImageHeaders& headers) {
    FileHeader header{};
    if (platform::readFileAt(file, 0, header) != header.size()) {
        return false;
    }
    const auto place = platform::findProgramHeaders(ByteCursor(header.data(), header.size()));
    if (!place || place->size != headers.bytes.size()) {
        return false;
    }
    std::vector<std::uint8_t> bytes(place->size);
    return platform::readFileAt(file, place->fileOffset, bytes) == bytes.size() &&
           bytes == headers.bytes;
}

/// A part of the file, if all of it is there.
std::vector<std::uint8_t> readPart(const platform::Descriptor& file, std::uint64_t offset,
                                   std::uint64_t size) {
    std::vector<std::uint8_t> bytes(size);
    bytes.resize(platform::readFileAt(file, offset, bytes));
    return bytes;
}

struct Section {
    std::uint32_t name = 0;
    std::uint64_t flags = 0;
    std::uint64_t address = 0;
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
};

Section takeSection(ByteCursor& table) noexcept {
    Section section;
    section.name = table.read<std::uint32_t>();
    table.skip(4);  // type
    section.flags = table.read<std::uint64_t>();
    section.address = table.read<std::uint64_t>();
    section.offset = table.read<std::uint64_t>();
    section.size = table.read<std::uint64_t>();
    table.skip(24);  // link, info, alignment, size of an entry
    return section;
}

}  // namespace

ModuleFile::ModuleFile(pid_t task, const platform::MappedRange& range,
                       const platform::ImageHeaders& headers)
    : file(platform::openMappedFile(task, range)), programHeaders(headers) {
    if (headers.bytes.empty() || !hasHeaders(file, headers)) {
        file = {};
    }
}

std::optional<AddressRange> ModuleFile::frames() const {
    FileHeader header{};
    if (platform::readFileAt(file, 0, header) != header.size() ||
        fieldAt<std::uint16_t>(header, offsetof(Elf64_Ehdr, e_shentsize)) != sizeof(Elf64_Shdr)) {
        return std::nullopt;
    }
    const std::vector<std::uint8_t> table =
        readPart(file, fieldAt<std::uint64_t>(header, offsetof(Elf64_Ehdr, e_shoff)),
                 std::uint64_t{fieldAt<std::uint16_t>(header, offsetof(Elf64_Ehdr, e_shnum))} *
                     sizeof(Elf64_Shdr));
    ByteCursor names(table.data(), table.size());
    names.skip(std::uint64_t{fieldAt<std::uint16_t>(header, offsetof(Elf64_Ehdr, e_shstrndx))} *
               sizeof(Elf64_Shdr));
    const std::uint64_t nameOffset = takeSection(names).offset;
    constexpr std::string_view wanted = ".eh_frame";
    for (ByteCursor sections(table.data(), table.size()); !sections.atEnd();) {
        const Section section = takeSection(sections);
        std::array<std::uint8_t, wanted.size() + 1> name{};
        platform::readFileAt(file, nameOffset + section.name, name);
        if (sections.ok() && (section.flags & SHF_ALLOC) != 0 && name.back() == 0 &&
            std::equal(wanted.begin(), wanted.end(), name.begin())) {
            return AddressRange{section.address, section.address + section.size};
        }
    }
    return std::nullopt;
}

std::size_t ModuleFile::read(std::uint64_t address, std::span<std::uint8_t> out) const noexcept {
    for (ByteCursor table = programHeaders.table(); !table.atEnd();) {
        const ProgramHeader header = platform::takeProgramHeader(table);
        const std::uint64_t offset = address - header.address;
        if (header.type == PT_LOAD && offset < header.fileSize) {
            const std::uint64_t size =
                std::min<std::uint64_t>(out.size(), header.fileSize - offset);
            return platform::readFileAt(file, header.fileOffset + offset, out.first(size));
        }
    }
    return 0;
}

}  // namespace ThreadUtilities::process
