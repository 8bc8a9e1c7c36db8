// The unwind rows of whole libraries, ours against those of elfutils.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/auxv.h>

#include <cstring>
#include <memory>
#include <random>

#include "platform/code_modules.h"
#include "stack/cfi/expression.h"
#include "stack/cfi/table_step.h"
#include "stack_cfi/elfutils_rows.h"

namespace ThreadUtilities::cfi {
namespace {

/// A made-up frame: registers and words all point into one piece of memory, so that expressions
/// find something to read, and no two of them are the same.
class MadeUpFrame {
 public:
    MadeUpFrame() : words(8192) {
        std::mt19937_64 random(7);
        const auto begin = reinterpret_cast<std::uint64_t>(words.data());
        for (std::uint64_t& word : words) {
            word = begin + random() % (words.size() * 8 - 4096) / 8 * 8;
        }
        for (std::size_t number = 0; number < registers.size(); ++number) {
            registers[number] = begin + 8192 + 2048 * number + 16 * (random() % 64);
        }
    }

    platform::ReadableRange range() const {
        const auto begin = reinterpret_cast<std::uint64_t>(words.data());
        return {begin, begin + words.size() * 8};
    }

    std::optional<std::uint64_t> word(std::uint64_t address) const {
        std::uint64_t value = 0;
        if (address < range().begin || address > range().end - 8) {
            return std::nullopt;
        }
        std::memcpy(&value, reinterpret_cast<const void*>(address), sizeof(value));
        return value;
    }

    platform::Registers registers{};

 private:
    std::vector<std::uint64_t> words;
};

/// Our row of an address, applied to the frame.
class OwnRows {
 public:
    explicit OwnRows(const MadeUpFrame& frame)
        : registers(frame.registers, platform::allRegisters), memory(frame.range()) {}

    std::optional<AppliedRow> rowAt(const platform::CodeModule& module, std::uint64_t address) {
        registers.set(platform::Rip, address);
        if (findTableRow(module, address, nullptr, found) != StepResult::Made) {
            return std::nullopt;
        }
        AppliedRow applied;
        applied.isSignalFrame = found.isSignalFrame;
        const FrameAddressRule& rule = found.row.frameAddress;
        frameAddress = rule.isExpression
                           ? evaluate(rule.expression, nullptr).value_or(0)
                           : registers[rule.base] + static_cast<std::uint64_t>(rule.offset);
        applied.frameAddress = frameAddress;
        for (std::size_t index = 0; index < comparedRegisters.size(); ++index) {
            std::uint64_t number = comparedRegisters[index];
            if (number == platform::Rip) {
                number = found.returnAddressColumn;
            }
            applied.locations[index] = locationOf(found.row.registers[number]);
        }
        // Without a rule the caller's stack pointer is the frame address; elfutils says so.
        if (applied.locations[2].kind == Location::Kind::Same) {
            applied.locations[2] = {Location::Kind::IsValue, frameAddress};
        }
        return applied;
    }

    std::size_t expressions = 0;

 private:
    std::optional<std::uint64_t> evaluate(const std::uint8_t* block, const std::uint64_t* initial) {
        ++expressions;
        ByteCursor bytes(block, found.tableEnd);
        std::uint64_t result = 0;
        const StepResult ending =
            evaluateExpression(bytes.sub(bytes.uleb128()), registers, memory, initial, result);
        return ending == StepResult::Made ? std::optional(result) : std::nullopt;
    }

    Location locationOf(RegisterRule rule) {
        using Kind = RegisterRule::Kind;
        const auto value = static_cast<std::uint64_t>(rule.value());
        switch (rule.kind()) {
            case Kind::SameValue:
                return {Location::Kind::Same};
            case Kind::Undefined:
                return {Location::Kind::Undefined};
            case Kind::AtOffset:
                return {Location::Kind::InMemory, frameAddress + value};
            case Kind::IsOffset:
                return {Location::Kind::IsValue, frameAddress + value};
            case Kind::InRegister:
                return {Location::Kind::IsValue, registers[value]};
            case Kind::AtExpression:
            case Kind::IsExpression:
                break;
        }
        const auto result = evaluate(rule.expression(), &frameAddress);
        if (!result) {
            return {Location::Kind::Unknown};
        }
        return {
            rule.kind() == Kind::AtExpression ? Location::Kind::InMemory : Location::Kind::IsValue,
            *result};
    }

    TableRow found;
    RegisterFile registers;
    StackWords memory;
    std::uint64_t frameAddress = 0;
};

/// Compares every row of every FDE.
void compareRows(const ElfutilsRows& theirs, std::uint64_t loadBias) {
    MadeUpFrame frame;
    OwnRows ours(frame);
    std::size_t compared = 0;
    platform::CodeModule module;
    const auto ranges = theirs.codeRanges();
    for (const ElfutilsRows::CodeRange& range : ranges) {
        for (std::uint64_t address = range.begin; address < range.end;) {
            const std::uint64_t loaded = address + loadBias;
            if (loaded - module.begin >= module.size) {
                ASSERT_TRUE(platform::findCodeModule(loaded, true, module)) << std::hex << address;
            }
            frame.registers[platform::Rip] = loaded;
            const auto expected = theirs.rowAt(address, frame.registers,
                                               [&](std::uint64_t at) { return frame.word(at); });
            const auto actual = ours.rowAt(module, loaded);
            ASSERT_EQ(actual.has_value(), expected.has_value()) << std::hex << address;
            if (!expected) {
                break;
            }
            ASSERT_EQ(*actual, expected->applied) << "at 0x" << std::hex << address;
            ASSERT_GT(expected->end, address);
            address = expected->end;
            ++compared;
        }
    }
    std::printf("%zu rows of %zu functions equal, %zu expressions among them\n", compared,
                ranges.size(), ours.expressions);
    EXPECT_GE(compared, ranges.size());
    EXPECT_GT(compared, 5u);
}

class RowsAgainstElfutils : public testing::TestWithParam<const char*> {
 protected:
    void SetUp() override { platform::prepareModuleLookup(); }
};

TEST_P(RowsAgainstElfutils, AreTheSameInTheWholeLibrary) {
    void* const library = dlopen(GetParam(), RTLD_LAZY);
    if (library == nullptr) {
        GTEST_SKIP() << "needs " << GetParam();
    }
    link_map* map = nullptr;
    ASSERT_EQ(dlinfo(library, RTLD_DI_LINKMAP, &map), 0);
    const ElfutilsRows theirs(map->l_name);
    ASSERT_TRUE(theirs.isOpen()) << map->l_name;
    compareRows(theirs, map->l_addr);
}

INSTANTIATE_TEST_SUITE_P(Libraries, RowsAgainstElfutils,
                         testing::Values("libc.so.6", "libstdc++.so.6", "ld-linux-x86-64.so.2",
                                         "libcrypto.so.3", "libicui18n.so.72",
                                         "libpython3.11.so.1.0", "libLLVM-14.so.1"),
                         [](const auto& tested) {
                             std::string name;
                             for (const char letter : std::string_view(tested.param)) {
                                 name += std::isalnum(static_cast<unsigned char>(letter)) != 0
                                             ? std::string(1, letter)
                                             : std::string();
                             }
                             return name;
                         });

TEST(RowsAgainstElfutilsOfVdso, AreTheSame) {
    platform::prepareModuleLookup();
    const auto* const image = reinterpret_cast<const ElfW(Ehdr)*>(getauxval(AT_SYSINFO_EHDR));
    if (image == nullptr) {
        GTEST_SKIP() << "needs a vdso";
    }
    const ElfutilsRows theirs(image, image->e_shoff + image->e_shnum * image->e_shentsize);
    ASSERT_TRUE(theirs.isOpen());
    compareRows(theirs, reinterpret_cast<std::uint64_t>(image));
}

}  // namespace
}  // namespace ThreadUtilities::cfi
