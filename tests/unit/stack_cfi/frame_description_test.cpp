#include "stack/cfi/frame_description.h"

#include <gtest/gtest.h>

#include "scripted_platform/memory_script.h"
#include "stack_cfi/table_builder.h"

namespace ThreadUtilities::cfi {
namespace {

/// How the tables are read.
enum class Access { InPlace, Copied };

struct Parameters {
    Access access;
    bool withIndex;
};

class FrameDescriptions : public testing::TestWithParam<Parameters> {
 protected:
    void TearDown() override { scripted::memory.clear(); }

    /// Three functions, the last of them in a signal trampoline.
    void writeThree() {
        const auto usual = builder.addCommonPart("zR", {0x1B}, usualCommonProgram);
        const auto signal =
            builder.addCommonPart("zPLRS", {0x9B, 1, 2, 3, 4, 0x1B, 0x1B}, usualCommonProgram);
        builder.addFunction(usual, 0x8000, 0x100, {0x41, 0x0E, 16});
        builder.addFunction(usual, 0x4000, 0x80, {});
        builder.addFunction(signal, 0x9000, 0x10, {});
    }

    LookupResult find(std::uint64_t offset) {
        builder.finish(GetParam().withIndex);
        return findIn(offset);
    }

    /// The same for tables that have been changed after they were finished.
    LookupResult findIn(std::uint64_t offset) {
        const std::uint64_t begin = builder.address();
        if (GetParam().access == Access::InPlace) {
            const platform::ReadableRange all{begin, begin + TableBuilder::moduleSize};
            return findBy(TableReader(all, all), offset);
        }
        scripted::memory.clear();
        scripted::memory[begin] = builder.memory;
        return findBy(TableReader(copies), offset);
    }

    LookupResult findBy(const TableReader& reader, std::uint64_t offset) {
        const std::uint64_t header = builder.address();
        return findFrameDescription(reader, header, framesOfHeader(reader, header),
                                    builder.address(offset), found);
    }

    TableBuilder builder;
    TableCopies copies;
    FrameDescription found;
};

TEST_P(FrameDescriptions, AreFoundForTheirCodeAndForNoOther) {
    writeThree();
    EXPECT_EQ(find(0x8000), LookupResult::Found);
    EXPECT_EQ(found.codeBegin, builder.address(0x8000));
    EXPECT_EQ(found.codeEnd, builder.address(0x8100));
    EXPECT_EQ(found.dataAlignment, -8);
    EXPECT_EQ(found.returnAddressColumn, 16u);
    EXPECT_FALSE(found.isSignalFrame);
    EXPECT_EQ(found.instructions.read<std::uint8_t>(), 0x41);
    EXPECT_EQ(findIn(0x80FF), LookupResult::Found);
    EXPECT_EQ(findIn(0x407F), LookupResult::Found);
    EXPECT_EQ(findIn(0x9000), LookupResult::Found);
    EXPECT_TRUE(found.isSignalFrame);
    for (const std::uint64_t offset : {0x3FFF, 0x4080, 0x7FFF, 0x8100, 0x9010, 0xFFFF}) {
        EXPECT_EQ(findIn(offset), LookupResult::NotCovered) << std::hex << offset;
    }
}

TEST_P(FrameDescriptions, AreRefusedWithAStrangeCommonPart) {
    struct Case {
        const char* augmentation;
        Bytes data;
        std::uint8_t version;
        bool isKnown = false;
    };
    for (const Case& tested :
         {Case{"zR", {0x1B}, 3, true}, Case{"zR", {0x1B}, 4, true}, Case{"zRB", {0x1B}, 1, true},
          Case{"zR", {0x1B}, 2}, Case{"zQR", {0x1B}, 1},
          Case{"zR", {0x9B}, 1},      // code behind a pointer
          Case{"zR", {0x5B}, 1},      // relative to what nobody knows
          Case{"zPR", {0x0B, 1}, 1},  // cut off
          Case{"R", {0x1B}, 1}}) {
        builder = TableBuilder();
        const auto common = builder.addCommonPart(tested.augmentation, tested.data,
                                                  usualCommonProgram, tested.version);
        builder.addFunction(common, 0x4000, 0x10, {});
        EXPECT_EQ(find(0x4000) == LookupResult::Found, tested.isKnown)
            << tested.augmentation << +tested.version;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Read, FrameDescriptions,
    testing::Values(Parameters{Access::InPlace, true}, Parameters{Access::InPlace, false},
                    Parameters{Access::Copied, true}, Parameters{Access::Copied, false}),
    [](const auto& tested) {
        return std::string(tested.param.access == Access::InPlace ? "InPlace" : "Copied") +
               (tested.param.withIndex ? "ByIndex" : "EntryByEntry");
    });

}  // namespace
}  // namespace ThreadUtilities::cfi
