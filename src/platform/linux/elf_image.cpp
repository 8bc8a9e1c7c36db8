#include "platform/linux/elf_image.h"

#include <elf.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace ThreadUtilities::platform {
namespace {

struct ProgramHeader {
    std::uint32_t type = 0;
    std::uint64_t fileOffset = 0;
    std::uint64_t address = 0;
    std::uint64_t fileSize = 0;
    std::uint64_t memorySize = 0;
    std::uint64_t alignment = 0;
};

ProgramHeader readProgramHeader(ByteCursor& bytes) {
    ProgramHeader header;
    header.type = bytes.read<std::uint32_t>();
    bytes.skip(4);  // flags
    header.fileOffset = bytes.read<std::uint64_t>();
    header.address = bytes.read<std::uint64_t>();
    bytes.skip(8);  // physical address
    header.fileSize = bytes.read<std::uint64_t>();
    header.memorySize = bytes.read<std::uint64_t>();
    header.alignment = bytes.read<std::uint64_t>();
    return header;
}

/// The program headers of an object that can be loaded; a failed cursor for everything else.
ByteCursor programHeadersOf(ByteCursor start) {
    ByteCursor file = start;
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
    if (magic != loadLittleEndian<std::uint32_t>(reinterpret_cast<const std::uint8_t*>(ELFMAG)) ||
        fileClass != ELFCLASS64 || byteOrder != ELFDATA2LSB ||
        (type != ET_DYN && type != ET_EXEC) || entrySize != sizeof(Elf64_Phdr)) {
        start.fail();
    }
    start.seek(tableOffset);
    return start.sub(std::uint64_t{entryCount} * entrySize);
}

}  // namespace

std::optional<ElfImage> parseElfImage(ByteCursor start) {
    ByteCursor table = programHeadersOf(start);
    std::uint64_t lowest = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t highest = 0;
    ElfImage image;
    while (table.ok() && !table.atEnd()) {
        const ProgramHeader header = readProgramHeader(table);
        if (header.type == PT_LOAD) {
            const auto end = checkedAdd(header.address, header.memorySize);
            if (!end) {
                return std::nullopt;
            }
            lowest = std::min(lowest, pageOf(header.address));
            highest = std::max(highest, *end);
        } else if (header.type == PT_NOTE) {
            image.notes.push_back(
                {header.address, header.fileOffset, header.fileSize, header.alignment});
        }
    }
    const auto end = checkedAlignUp(highest, pageSize);
    if (!table.ok() || !end || lowest >= *end) {
        return std::nullopt;
    }
    image.size = *end - lowest;
    for (NoteSegment& note : image.notes) {
        note.imageOffset -= lowest;  // what wraps lies outside every image, and is not readable
    }
    return image;
}

std::optional<DebugGuid> findBuildId(ByteCursor notes, std::uint64_t alignment) noexcept {
    const std::size_t padding = alignment == 8 ? 8 : 4;
    while (notes.ok() && !notes.atEnd()) {
        const auto nameSize = notes.read<std::uint32_t>();
        const auto descriptionSize = notes.read<std::uint32_t>();
        const auto type = notes.read<std::uint32_t>();
        const ByteCursor name = notes.sub(nameSize);
        notes.alignTo(padding);
        const ByteCursor description = notes.sub(descriptionSize);
        if (!notes.ok()) {
            return std::nullopt;
        }
        if (type == NT_GNU_BUILD_ID && description.remaining() != 0 &&
            nameSize == sizeof(ELF_NOTE_GNU) &&
            std::memcmp(name.data(), ELF_NOTE_GNU, sizeof(ELF_NOTE_GNU)) == 0) {
            DebugGuid guid{};
            std::memcpy(guid.data(), description.data(),
                        std::min(guid.size(), description.remaining()));
            return guid;
        }
        notes.alignTo(padding);
    }
    return std::nullopt;
}

}  // namespace ThreadUtilities::platform
