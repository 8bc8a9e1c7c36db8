#include "platform/linux/elf_image.h"

#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>

namespace ThreadUtilities::platform {
namespace {

using Bytes = std::vector<std::uint8_t>;

void append(Bytes& bytes, const void* data, std::size_t size) {
    const auto* const begin = static_cast<const std::uint8_t*>(data);
    bytes.insert(bytes.end(), begin, begin + size);
}

Bytes note(std::string_view name, std::uint32_t type, const Bytes& description,
           std::size_t padding = 4) {
    Bytes bytes;
    const std::uint32_t header[] = {static_cast<std::uint32_t>(name.size()),
                                    static_cast<std::uint32_t>(description.size()), type};
    append(bytes, header, sizeof(header));
    append(bytes, name.data(), name.size());
    bytes.resize((bytes.size() + padding - 1) / padding * padding);
    append(bytes, description.data(), description.size());
    bytes.resize((bytes.size() + padding - 1) / padding * padding);
    return bytes;
}

Bytes operator+(Bytes left, const Bytes& right) {
    append(left, right.data(), right.size());
    return left;
}

constexpr std::string_view gnu("GNU\0", 4);

TEST(ElfNotes, FindsTheBuildIdAndPadsItWithZeros) {
    const Bytes id{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
    const Bytes brief{0xDE, 0xAD, 0xBE, 0xEF};
    const DebugGuid wholeGuid{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const DebugGuid briefGuid{0xDE, 0xAD, 0xBE, 0xEF};
    const struct {
        const char* what;
        Bytes bytes;
        std::uint64_t alignment;
        std::optional<DebugGuid> guid;
    } cases[] = {
        {"whole, after another", note("Xen", 3, brief) + note(gnu, 3, id), 4, wholeGuid},
        {"after others", note(gnu, 1, Bytes(16)) + note("Xen", 3, id) + note(gnu, 3, brief), 4,
         briefGuid},
        {"padded to 8", note(gnu, 5, Bytes(12), 8) + note(gnu, 3, brief, 8), 8, briefGuid},
        {"alignment 1 means 4", note(gnu, 3, brief), 1, briefGuid},
        {"odd name first", note("stapsdt\0", 3, Bytes(5)) + note(gnu, 3, brief), 4, briefGuid},
        {"no description", note(gnu, 3, {}), 4, std::nullopt},
        {"another type", note(gnu, 4, id), 4, std::nullopt},
        {"another name", note("GNX\0", 3, id), 4, std::nullopt},
        {"nothing", {}, 4, std::nullopt},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(findBuildId(ByteCursor(one.bytes.data(), one.bytes.size()), one.alignment),
                  one.guid)
            << one.what;
    }
}

struct MadeUpImage {
    Elf64_Ehdr header{};
    std::vector<Elf64_Phdr> segments;

    MadeUpImage() {
        std::memcpy(header.e_ident, ELFMAG, SELFMAG);
        header.e_ident[EI_CLASS] = ELFCLASS64;
        header.e_ident[EI_DATA] = ELFDATA2LSB;
        header.e_type = ET_DYN;
        header.e_phoff = sizeof(Elf64_Ehdr);
        header.e_phentsize = sizeof(Elf64_Phdr);
        segments = {segment(PT_LOAD, 0x1000, 0x800), segment(PT_LOAD, 0x3800, 0x1001),
                    segment(PT_NOTE, 0x1200, 0x24)};
    }

    static Elf64_Phdr segment(std::uint32_t type, std::uint64_t address, std::uint64_t size) {
        Elf64_Phdr header{};
        header.p_type = type;
        header.p_vaddr = address;
        header.p_memsz = size;
        header.p_filesz = size;
        header.p_offset = address - 0x1000;
        header.p_align = 4;
        return header;
    }

    std::optional<ElfImage> parse() {
        header.e_phnum = static_cast<std::uint16_t>(segments.size());
        Bytes bytes;
        append(bytes, &header, sizeof(header));
        append(bytes, segments.data(), segments.size() * sizeof(Elf64_Phdr));
        return parseElfImage(ByteCursor(bytes.data(), bytes.size()));
    }
};

TEST(ElfImage, HasItsExtentAndNotesUnlessItCannotBeLoaded) {
    const auto whole = MadeUpImage().parse();
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->size, 0x4000u) << "from page 1 to the end of the page that holds 0x4800";
    ASSERT_EQ(whole->notes.size(), 1u);
    EXPECT_EQ(whole->notes[0].imageOffset, 0x200u);
    EXPECT_EQ(whole->notes[0].fileOffset, 0x200u);
    EXPECT_EQ(whole->notes[0].size, 0x24u);

    const std::pair<const char*, void (*)(MadeUpImage&)> damages[] = {
        {"magic", [](MadeUpImage& image) { image.header.e_ident[0] = 'x'; }},
        {"32 bits", [](MadeUpImage& image) { image.header.e_ident[EI_CLASS] = ELFCLASS32; }},
        {"byte order", [](MadeUpImage& image) { image.header.e_ident[EI_DATA] = ELFDATA2MSB; }},
        {"core file", [](MadeUpImage& image) { image.header.e_type = ET_CORE; }},
        {"entry size", [](MadeUpImage& image) { image.header.e_phentsize = 32; }},
        {"table offset", [](MadeUpImage& image) { image.header.e_phoff = ~0ull - 8; }},
        {"nothing to load", [](MadeUpImage& image) { image.segments.clear(); }},
        {"wraps", [](MadeUpImage& image) { image.segments[1].p_memsz = ~0ull; }},
        {"wraps when aligned",
         [](MadeUpImage& image) { image.segments[1].p_memsz = ~0ull - 0x3800; }},
    };
    for (const auto& [what, damage] : damages) {
        MadeUpImage image;
        damage(image);
        EXPECT_FALSE(image.parse()) << what;
    }
}

}  // namespace
}  // namespace ThreadUtilities::platform
