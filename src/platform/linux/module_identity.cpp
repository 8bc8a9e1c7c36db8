#include "platform/linux/module_identity.h"

#include <link.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string_view>

#include "foundation/checked_bytes.h"

namespace ThreadUtilities::platform {
namespace {

constexpr std::string_view noteOwner{"GNU", 4};
constexpr std::uint64_t noteHeaderSize = 12 + noteOwner.size();
/// Shorter ids are no hash of the contents; somebody chose them.
constexpr std::uint32_t minIdSize = 8;
constexpr std::uint32_t maxIdSize = 64;

/// The program headers, as far as they are what every linker writes: right in the first page.
struct ProgramHeaders {
    ProgramHeaders(std::uint64_t begin, ByteCursor firstPage) noexcept : page(firstPage) {
        ElfW(Ehdr) header{};
        if (page.remaining() < sizeof(header)) {
            return;
        }
        std::memcpy(&header, page.data(), sizeof(header));
        if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
            header.e_phentsize != sizeof(ElfW(Phdr))) {
            return;
        }
        page.seek(header.e_phoff);
        page = page.sub(std::uint64_t{header.e_phnum} * sizeof(ElfW(Phdr)));
        count = page.ok() ? header.e_phnum : 0;
        for (unsigned index = 0; index < count; ++index) {
            const ElfW(Phdr) entry = (*this)[index];
            if (entry.p_type == PT_LOAD) {
                bias = begin - (entry.p_vaddr & ~(modulePageSize - 1));
                break;
            }
        }
    }

    ElfW(Phdr) operator[](unsigned index) const noexcept {
        ElfW(Phdr) entry;
        std::memcpy(&entry, page.data() + index * sizeof(entry), sizeof(entry));
        return entry;
    }

    ByteCursor page;
    unsigned count = 0;
    std::uint64_t bias = 0;  ///< address in memory minus address in the file
};

/// Passes over one note. Whether it is a build-id; then `id` is it.
bool takeBuildId(ByteCursor& notes, ByteCursor& id) noexcept {
    const auto nameSize = notes.read<std::uint32_t>();
    const auto idSize = notes.read<std::uint32_t>();
    const auto type = notes.read<std::uint32_t>();
    const ByteCursor name = notes.sub(nameSize);
    notes.alignTo(4);
    id = notes.sub(idSize);
    notes.alignTo(4);
    return notes.ok() && type == NT_GNU_BUILD_ID && nameSize == noteOwner.size() &&
           std::memcmp(name.data(), noteOwner.data(), noteOwner.size()) == 0 &&
           idSize >= minIdSize && idSize <= maxIdSize;
}

/// Where in the first page the note of the build-id begins; 0 when there is none.
std::uint64_t findBuildIdNote(std::uint64_t begin, ByteCursor firstPage) noexcept {
    const ProgramHeaders headers(begin, firstPage);
    for (unsigned index = 0; index < headers.count; ++index) {
        const ElfW(Phdr) entry = headers[index];
        const std::uint64_t offset = headers.bias + entry.p_vaddr - begin;
        if (entry.p_type != PT_NOTE || offset >= modulePageSize) {
            continue;
        }
        ByteCursor page = firstPage;
        page.seek(offset);
        ByteCursor notes = page.sub(std::min(entry.p_memsz, page.remaining()));
        while (notes.ok() && notes.remaining() >= noteHeaderSize) {
            const std::uint64_t noteOffset = offset + notes.position();
            ByteCursor id;
            if (takeBuildId(notes, id)) {
                return noteOffset;
            }
        }
    }
    return 0;
}

/// Where the build-id note of a module was found last: page number of its start, and offset in
/// that page. One word, so that nothing can be torn; a hint, because the note is looked at again.
std::atomic<std::uint64_t> noteHints[64];

std::atomic<std::uint64_t>& hintOf(std::uint64_t begin) noexcept {
    return noteHints[begin * 0x9E3779B97F4A7C15 >> 58];
}

__extension__ using Product = unsigned __int128;

std::uint64_t mixed(std::uint64_t hash, std::uint64_t word) noexcept {
    const Product product = Product{hash ^ word} * 0xD6E8FEB86659FD93;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

/// What the first 16 bytes of the note of a SHA-1 build-id hold, which nearly all build-ids are.
constexpr std::uint64_t usualSizes = noteOwner.size() | std::uint64_t{20} << 32;
constexpr std::uint64_t usualTypeAndOwner = NT_GNU_BUILD_ID | std::uint64_t{0x00554E47} << 32;

/// The build-id at `offset` of the first page, as a number; 0 when none is there.
std::uint64_t hashOfNoteAt(std::uint64_t offset, ByteCursor notes) noexcept {
    notes.seek(offset);
    ByteCursor id;
    if (notes.remaining() >= noteHeaderSize + 20 &&
        loadLittleEndian<std::uint64_t>(notes.data()) == usualSizes &&
        loadLittleEndian<std::uint64_t>(notes.data() + 8) == usualTypeAndOwner) {
        id = ByteCursor(notes.data() + noteHeaderSize, 20);
    } else if (!takeBuildId(notes, id)) {
        return 0;
    }
    const std::uint8_t* const bytes = id.data();
    const std::size_t size = id.remaining();
    return mixed(loadLittleEndian<std::uint64_t>(bytes),
                 loadLittleEndian<std::uint64_t>(bytes + size - 8)) |
           1;
}

}  // namespace

std::uint64_t moduleIdentity(std::uint64_t begin, std::uint64_t unwindHeader,
                             ByteCursor page) noexcept {
    const std::uint64_t known = hintOf(begin).load(std::memory_order_relaxed);
    std::uint64_t hash = 0;
    if (known / modulePageSize == begin / modulePageSize) {
        hash = hashOfNoteAt(known % modulePageSize, page);
    }
    if (hash == 0) {
        const std::uint64_t offset = findBuildIdNote(begin, page);
        if (offset == 0) {
            return 0;
        }
        hash = hashOfNoteAt(offset, page);
        hintOf(begin).store(begin | offset, std::memory_order_relaxed);
    }
    return mixed(mixed(hash, begin), unwindHeader) | 1;
}

ReadableRange mappedSegment(std::uint64_t begin, std::uint64_t end, std::uint64_t address,
                            ByteCursor page) noexcept {
    const ProgramHeaders headers(begin, page);
    for (unsigned index = 0; index < headers.count; ++index) {
        const ElfW(Phdr) entry = headers[index];
        const std::uint64_t first = headers.bias + entry.p_vaddr;
        if (entry.p_type == PT_LOAD && (entry.p_flags & PF_R) != 0 && first <= address &&
            address - first < entry.p_memsz && isWithin(first, entry.p_memsz, begin, end)) {
            return {first, first + entry.p_memsz};
        }
    }
    return {};
}

}  // namespace ThreadUtilities::platform
