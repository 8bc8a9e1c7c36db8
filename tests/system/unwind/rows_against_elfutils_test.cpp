// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// The unwind rows of the C library and the vdso, ours against those of elfutils.

#include <dlfcn.h>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <fcntl.h>
#include <gnu/libc-version.h>
#include <gtest/gtest.h>
#include <libelf.h>
#include <link.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>

#include "platform/code_modules.h"
#include "unwind/own_space.h"
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

/// Compares every row, and where there is none.
void compareRows(const ElfutilsRows& theirs, std::uint64_t loadBias, std::size_t fewest) {
    platform::prepareModuleLookup();
    platform::CodeModule module;
    ASSERT_TRUE(platform::findCodeModule(loadBias, module));
    std::size_t compared = 0;
    for (std::uint64_t address = 0; address < module.size; ++address) {
        SCOPED_TRACE(address);
        TableRow ours;
        const StepResult found = findTableRow(module, address + loadBias, {ownSpace}, ours);
        const auto row = theirs.rowAt(address);
        ASSERT_EQ(found == StepResult::Made, row != nullptr);
        if (!row) {
            continue;
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
        address = end - 1;
        ++compared;
    }
    EXPECT_GT(compared, fewest);
}

TEST(RowsAgainstElfutils, AreTheSameInTheCLibrary) {
    Dl_info library{};
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&gnu_get_libc_version), &library), 0);
    compareRows(ElfutilsRows(library.dli_fname), reinterpret_cast<std::uint64_t>(library.dli_fbase),
                10'000);
}

TEST(RowsAgainstElfutils, AreTheSameInTheVdso) {
    const auto* const image = reinterpret_cast<const ElfW(Ehdr)*>(getauxval(AT_SYSINFO_EHDR));
    if (image == nullptr) {
        GTEST_SKIP() << "needs a vdso";
    }
    compareRows(ElfutilsRows(image, image->e_shoff + image->e_shnum * image->e_shentsize),
                reinterpret_cast<std::uint64_t>(image), 5);
}

}  // namespace
}  // namespace ThreadUtilities::cfi
