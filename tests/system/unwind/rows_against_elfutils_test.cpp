// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// The unwind rows of whole libraries, ours against those of elfutils.

#include <dlfcn.h>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <fcntl.h>
#include <gelf.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <span>
#include <string>

#include "platform/code_modules.h"
#include "unwind/table_step.h"

namespace ThreadUtilities::cfi {
namespace {

using Kind = RegisterRule::Kind;
using Operations = std::span<const Dwarf_Op>;

/// The registers that a caller may rely on, and what else a step must find.
constexpr int comparedRegisters[] = {platform::Rbx, platform::Rbp, platform::Rsp, platform::R12,
                                     platform::R13, platform::R14, platform::R15, platform::Rip};

/// The unwind rows of an ELF file as elfutils reads them.
class ElfutilsRows {
 public:
    explicit ElfutilsRows(const std::string& path) : file(::open(path.c_str(), O_RDONLY)) {
        elf_version(EV_CURRENT);
        elf = elf_begin(file, ELF_C_READ_MMAP, nullptr);
        cfi = dwarf_getcfi_elf(elf);
    }
    /// An ELF image in memory.
    ElfutilsRows(const void* image, std::size_t size) {
        elf_version(EV_CURRENT);
        elf = elf_memory(static_cast<char*>(const_cast<void*>(image)), size);
        cfi = dwarf_getcfi_elf(elf);
    }
    ~ElfutilsRows() {
        dwarf_cfi_end(cfi);
        elf_end(elf);
        close(file);
    }
    ElfutilsRows(const ElfutilsRows&) = delete;
    ElfutilsRows& operator=(const ElfutilsRows&) = delete;

    /// The code of every FDE, as addresses in the file.
    std::vector<platform::ReadableRange> codeRanges() const {
        std::size_t names = 0;
        elf_getshdrstrndx(elf, &names);
        std::vector<platform::ReadableRange> ranges;
        for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf, section)) != nullptr;) {
            GElf_Shdr header;
            gelf_getshdr(section, &header);
            if (std::strcmp(elf_strptr(elf, names, header.sh_name), ".eh_frame") == 0) {
                addRangesOf(*elf_rawdata(section, nullptr), header.sh_addr, ranges);
            }
        }
        return ranges;
    }

    struct FreeFrame {
        void operator()(Dwarf_Frame* frame) const { std::free(frame); }
    };
    using Row = std::unique_ptr<Dwarf_Frame, FreeFrame>;

    /// Null where there is none.
    Row rowAt(std::uint64_t address) const {
        Dwarf_Frame* row = nullptr;
        dwarf_cfi_addrframe(cfi, address, &row);
        return Row(row);
    }

 private:
    void addRangesOf(Elf_Data& section, std::uint64_t sectionAddress,
                     std::vector<platform::ReadableRange>& ranges) const {
        const auto* const ident = reinterpret_cast<unsigned char*>(elf_getident(elf, nullptr));
        Dwarf_CFI_Entry entry;
        Dwarf_Off next = 0;
        for (Dwarf_Off offset = 0;
             dwarf_next_cfi(ident, &section, true, offset, &next, &entry) == 0; offset = next) {
            if (dwarf_cfi_cie_p(&entry)) {
                continue;
            }
            // Every linker of this system writes both fields as 32 bits, the first relative.
            std::int32_t start = 0;
            std::uint32_t size = 0;
            std::memcpy(&start, entry.fde.start, sizeof(start));
            std::memcpy(&size, entry.fde.start + sizeof(start), sizeof(size));
            const auto place = static_cast<std::uint64_t>(
                entry.fde.start - static_cast<const std::uint8_t*>(section.d_buf));
            const std::uint64_t begin = sectionAddress + place + std::int64_t{start};
            ranges.push_back({begin, begin + size});
        }
    }

    int file = -1;
    Elf* elf = nullptr;
    Dwarf_CFI* cfi = nullptr;
};

/// Elfutils decodes each operation at its place in the expression.
void expectSameExpression(const std::uint8_t* block, const std::uint8_t* end, Operations expected) {
    ByteCursor bytes(block, end);
    const ByteCursor operations = bytes.sub(bytes.uleb128());
    for (const Dwarf_Op& operation : expected) {
        ByteCursor at = operations;
        at.seek(operation.offset);
        ASSERT_EQ(at.read<std::uint8_t>(), operation.atom);
    }
}

void expectSameCfa(const TableRow& ours, Dwarf_Frame* theirs) {
    Dwarf_Op* operations = nullptr;
    std::size_t count = 0;
    ASSERT_EQ(dwarf_frame_cfa(theirs, &operations, &count), 0);
    ASSERT_GT(count, 0u);
    const CfaRule& rule = ours.row.cfa;
    if (rule.isExpression) {
        const bool hasEnd = operations[count - 1].atom == DW_OP_stack_value;
        expectSameExpression(rule.expression, ours.tableEnd, {operations, count - hasEnd});
        return;
    }
    ASSERT_EQ(operations[0].atom, DW_OP_bregx);
    ASSERT_EQ(operations[0].number, rule.base);
    ASSERT_EQ(static_cast<std::int64_t>(operations[0].number2), rule.offset);
}

void expectSameRule(const TableRow& ours, Dwarf_Frame* theirs, int number) {
    RegisterRule rule =
        ours.row.registers[number == platform::Rip ? ours.returnAddressColumn : number];
    // Without a rule the caller's stack pointer is the CFA; elfutils says so.
    if (number == platform::Rsp && rule.kind() == Kind::SameValue) {
        rule = {Kind::IsOffset, 0};
    }
    Dwarf_Op memory[3];
    Dwarf_Op* operations = nullptr;
    std::size_t count = 0;
    ASSERT_EQ(dwarf_frame_register(theirs, number, memory, &operations, &count), 0);
    if (count == 0) {
        // Elfutils' own table of registers that calls preserve has rax in the place of rbx, so an
        // rbx without a rule reads undefined there. No code of ours to compare says so itself.
        const bool isSame = operations == nullptr || number == platform::Rbx;
        ASSERT_EQ(rule, RegisterRule(isSame ? Kind::SameValue : Kind::Undefined));
        return;
    }
    if (operations[0].atom == DW_OP_regx) {
        ASSERT_EQ(rule, RegisterRule(Kind::InRegister, operations[0].number));
        return;
    }
    // The CFA first; then an offset, or what an expression does with it.
    ASSERT_EQ(operations[0].atom, DW_OP_call_frame_cfa);
    const bool isValue = operations[count - 1].atom == DW_OP_stack_value;
    const Operations rest(operations + 1, count - 1 - isValue);
    if (operations != memory) {
        ASSERT_EQ(rule.kind(), isValue ? Kind::IsExpression : Kind::AtExpression);
        expectSameExpression(rule.expression(), ours.tableEnd, rest);
        return;
    }
    const auto offset = rest.empty() ? 0 : static_cast<std::int64_t>(rest[0].number);
    ASSERT_EQ(rule, RegisterRule(isValue ? Kind::IsOffset : Kind::AtOffset, offset));
}

/// Compares every row of every FDE.
void compareRows(const ElfutilsRows& theirs, std::uint64_t loadBias) {
    platform::prepareModuleLookup();
    std::size_t compared = 0;
    platform::CodeModule module;
    const auto ranges = theirs.codeRanges();
    for (const platform::ReadableRange& range : ranges) {
        for (std::uint64_t address = range.begin; address < range.end;) {
            SCOPED_TRACE(address);
            const std::uint64_t loaded = address + loadBias;
            if (loaded - module.begin >= module.size) {
                ASSERT_TRUE(platform::findCodeModule(loaded, module));
            }
            TableRow ours;
            const StepResult found = findTableRow(module, loaded, nullptr, ours);
            const auto row = theirs.rowAt(address);
            ASSERT_EQ(found == StepResult::Made, row != nullptr);
            if (!row) {
                break;
            }
            std::uint64_t begin = 0;
            std::uint64_t end = 0;
            bool isSignalFrame = false;
            dwarf_frame_info(row.get(), &begin, &end, &isSignalFrame);
            ASSERT_EQ(ours.isSignalFrame, isSignalFrame);
            expectSameCfa(ours, row.get());
            for (const int number : comparedRegisters) {
                expectSameRule(ours, row.get(), number);
            }
            if (testing::Test::HasFatalFailure()) {
                return;
            }
            ASSERT_GT(end, address);
            address = end;
            ++compared;
        }
    }
    std::printf("%zu rows of %zu functions equal\n", compared, ranges.size());
    EXPECT_GE(compared, ranges.size());
    EXPECT_GT(compared, 5u);
}

/// A library beside the C library, whichever version of it is there; its name as it stands if none.
std::string pathOfLibrary(const std::string& pattern) {
    Dl_info info{};
    dladdr(reinterpret_cast<void*>(&::open), &info);
    std::string path = info.dli_fname;
    path.replace(path.rfind('/') + 1, path.npos, pattern);
    glob_t matches{};
    if (glob(path.c_str(), 0, nullptr, &matches) == 0) {
        path = matches.gl_pathv[0];
    } else {
        path = pattern;
    }
    globfree(&matches);
    return path;
}

class RowsAgainstElfutils : public testing::TestWithParam<const char*> {};

TEST_P(RowsAgainstElfutils, AreTheSameInTheWholeLibrary) {
    void* const library = dlopen(pathOfLibrary(GetParam()).c_str(), RTLD_LAZY);
    if (library == nullptr) {
        GTEST_SKIP() << "needs " << GetParam();
    }
    link_map* map = nullptr;
    ASSERT_EQ(dlinfo(library, RTLD_DI_LINKMAP, &map), 0);
    compareRows(ElfutilsRows(map->l_name), map->l_addr);
}

INSTANTIATE_TEST_SUITE_P(Libraries, RowsAgainstElfutils,
                         testing::Values("libc.so.6", "libstdc++.so.6", "ld-linux-x86-64.so.2",
                                         "libcrypto.so.[0-9]", "libicui18n.so.[0-9][0-9]",
                                         "libpython3.*.so.1.0", "libLLVM*[0-9].so*"),
                         [](const auto& tested) {
                             std::string name = tested.param;
                             std::erase_if(name, [](unsigned char letter) {
                                 return std::isalnum(letter) == 0;
                             });
                             return name;
                         });

TEST(RowsAgainstElfutilsOfVdso, AreTheSame) {
    const auto* const image = reinterpret_cast<const ElfW(Ehdr)*>(getauxval(AT_SYSINFO_EHDR));
    if (image == nullptr) {
        GTEST_SKIP() << "needs a vdso";
    }
    compareRows(ElfutilsRows(image, image->e_shoff + image->e_shnum * image->e_shentsize),
                reinterpret_cast<std::uint64_t>(image));
}

}  // namespace
}  // namespace ThreadUtilities::cfi
