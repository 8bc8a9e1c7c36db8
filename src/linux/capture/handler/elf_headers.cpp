// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/handler/elf_headers.h"

#include <elf.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>

namespace ThreadUtilities::platform {

static_assert(fileHeaderSize == sizeof(Elf64_Ehdr));

std::optional<ProgramHeaderTable> findProgramHeaders(ByteCursor file) noexcept {
    const auto magic = file.read<std::uint32_t>();
    const auto fileClass = file.read<std::uint8_t>();
    const auto byteOrder = file.read<std::uint8_t>();
    file.seek(offsetof(Elf64_Ehdr, e_type));
    const auto type = file.read<std::uint16_t>();
    file.seek(offsetof(Elf64_Ehdr, e_phoff));
    const auto tableOffset = file.read<std::uint64_t>();
    file.seek(offsetof(Elf64_Ehdr, e_phentsize));
    const auto entrySize = file.read<std::uint16_t>();
    const auto entryCount = file.read<std::uint16_t>();
    if (!file.ok() ||
        magic != loadLittleEndian<std::uint32_t>(reinterpret_cast<const std::uint8_t*>(ELFMAG)) ||
        fileClass != ELFCLASS64 || byteOrder != ELFDATA2LSB ||
        (type != ET_DYN && type != ET_EXEC) || entrySize != sizeof(Elf64_Phdr)) {
        return std::nullopt;
    }
    return ProgramHeaderTable{tableOffset, std::uint64_t{entryCount} * entrySize};
}

ProgramHeader takeProgramHeader(ByteCursor& table) noexcept {
    ProgramHeader header;
    header.type = table.read<std::uint32_t>();
    header.flags = table.read<std::uint32_t>();
    header.fileOffset = table.read<std::uint64_t>();
    header.address = table.read<std::uint64_t>();
    table.skip(8);  // physical address
    header.fileSize = table.read<std::uint64_t>();
    header.memorySize = table.read<std::uint64_t>();
    header.alignment = table.read<std::uint64_t>();
    return header;
}

std::optional<ImageExtent> extentOf(ByteCursor table) noexcept {
    std::uint64_t lowest = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t highest = 0;
    while (table.ok() && !table.atEnd()) {
        const ProgramHeader header = takeProgramHeader(table);
        if (header.type == PT_LOAD) {
            const auto end = checkedAdd(header.address, header.memorySize);
            if (!end) {
                return std::nullopt;
            }
            lowest = std::min(lowest, pageOf(header.address));
            highest = std::max(highest, *end);
        }
    }
    const auto end = checkedAlignUp(highest, memoryPageSize);
    if (!table.ok() || !end || lowest >= *end) {
        return std::nullopt;
    }
    return ImageExtent{lowest, *end};
}

ReadableRange readableSegmentOf(ByteCursor table, std::uint64_t address) noexcept {
    while (table.ok() && !table.atEnd()) {
        const ProgramHeader header = takeProgramHeader(table);
        if (header.type == PT_LOAD && (header.flags & PF_R) != 0 &&
            address - header.address < header.memorySize &&
            checkedAdd(header.address, header.memorySize)) {
            return {header.address, header.address + header.memorySize};
        }
    }
    return {};
}

}  // namespace ThreadUtilities::platform
