// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "windows/process_records.h"

#include <gmock/gmock.h>

#include <cstring>
#include <span>

namespace ThreadUtilities::platform {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::int32_t LengthMismatch = static_cast<std::int32_t>(0xC0000004);
constexpr std::int32_t AccessDenied = static_cast<std::int32_t>(0xC0000022);
constexpr std::uint32_t FirstLength = 1048576;

using Bytes = std::vector<std::uint8_t>;

template <class Number>
void put(Bytes& bytes, std::size_t offset, Number value) {
    std::memcpy(bytes.data() + offset, &value, sizeof(value));
}

/// A process record with its thread records, `padding` bytes behind them.
Bytes makeRecord(std::uint64_t processId, const std::vector<std::uint64_t>& threadIds,
                 std::size_t padding = 0) {
    Bytes record(256 + 80 * threadIds.size() + padding, 0xEE);
    put<std::uint32_t>(record, 0, static_cast<std::uint32_t>(record.size()));
    put<std::uint32_t>(record, 4, static_cast<std::uint32_t>(threadIds.size()));
    put<std::uint64_t>(record, 80, processId);
    for (std::size_t index = 0; index < threadIds.size(); ++index) {
        put<std::uint64_t>(record, 256 + 80 * index + 48, threadIds[index]);
    }
    return record;
}

Bytes makeChain(std::vector<Bytes> records) {
    put<std::uint32_t>(records.back(), 0, 0);
    Bytes chain;
    for (const Bytes& record : records) {
        chain.insert(chain.end(), record.begin(), record.end());
    }
    return chain;
}

std::vector<unsigned int> walk(const Bytes& bytes, unsigned int processId) {
    // Exactly as large as the bytes, so that a sanitizer sees every read beyond them.
    const auto copy = std::make_unique<std::uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    return threadsFromProcessRecords(copy.get(), bytes.size(), processId);
}

TEST(ProcessRecords, FindsTheProcessAnywhereInTheChain) {
    // The second record stands at an odd address, as the third does.
    const Bytes chain = makeChain({makeRecord(0, {0, 0}), makeRecord(4, {8, 12}, 3),
                                   makeRecord(0x1234, {7, 0xFFFFFFFF, 5}, 6), makeRecord(99, {})});

    EXPECT_THAT(walk(chain, 0), ElementsAre(0, 0));
    EXPECT_THAT(walk(chain, 4), ElementsAre(8, 12));
    EXPECT_THAT(walk(chain, 0x1234), ElementsAre(7, 0xFFFFFFFF, 5));
    EXPECT_THAT(walk(chain, 99), IsEmpty());
    EXPECT_THAT(walk(chain, 5), IsEmpty());
}

TEST(ProcessRecords, WrongRecordsEndTheWalk) {
    struct Case {
        const char* what;
        Bytes bytes;
        std::vector<unsigned int> expected;
    };
    const Bytes whole = makeChain({makeRecord(1, {10}), makeRecord(2, {20, 21})});
    std::vector<Case> cases{{"no bytes at all", {}, {}}};

    const auto edit = [&](const char* what, auto change, std::vector<unsigned int> expected) {
        Bytes bytes = whole;
        change(bytes);
        cases.push_back({what, bytes, std::move(expected)});
    };
    edit("cut in the second record's head", [](Bytes& b) { b.resize(336 + 84); }, {});
    edit("cut in the thread array", [](Bytes& b) { b.resize(b.size() - 40); }, {20});
    edit("more threads than bytes", [](Bytes& b) { put<std::uint32_t>(b, 336 + 4, ~0U); },
         {20, 21});
    edit("an offset beyond the end", [](Bytes& b) { put<std::uint32_t>(b, 0, ~0U); }, {});
    edit("an offset of one byte", [](Bytes& b) { put<std::uint32_t>(b, 0, 1); }, {});
    edit("a chain that ends early", [](Bytes& b) { put<std::uint32_t>(b, 0, 0); }, {});
    edit("an id that only looks the same in 32 bits",
         [](Bytes& b) { put<std::uint64_t>(b, 336 + 80, 0x100000002); }, {});
    for (const Case& oneCase : cases) {
        EXPECT_EQ(walk(oneCase.bytes, 2), oneCase.expected) << oneCase.what;
    }
}

struct Answer {
    std::int32_t status;
    std::uint32_t needed;
};

/// The lengths that a system with these answers is asked for, where thread ids are to be found.
std::vector<std::uint32_t> lengthsAsked(const std::vector<Answer>& answers,
                                        const std::vector<unsigned int>& found) {
    const Bytes records = makeChain({makeRecord(42, {1, 2, 3})});
    std::vector<std::uint32_t> lengths;
    const auto query = [&](std::uint32_t informationClass, void* buffer, std::uint32_t length,
                           std::uint32_t* needed) {
        EXPECT_EQ(informationClass, 5U);
        EXPECT_EQ(*needed, lengths.empty() ? 0 : answers[lengths.size() - 1].needed);
        const Answer& answer = answers.at(lengths.size());
        lengths.push_back(length);
        *needed = answer.needed;
        if (answer.status >= 0) {
            std::memcpy(buffer, records.data(), std::min<std::size_t>(length, records.size()));
        }
        return answer.status;
    };
    EXPECT_EQ(enumerateThreadsFromSystemInformation(42, query), found);
    return lengths;
}

TEST(ProcessRecords, AsksAgainWithExactlyTheReportedLength) {
    const std::uint32_t exact = 256 + 3 * 80;
    EXPECT_THAT(
        lengthsAsked({{LengthMismatch, 3 << 20}, {LengthMismatch, exact}, {0x10000000, 100}},
                     {1, 2, 3}),
        ElementsAre(FirstLength, 3U << 20, exact));
    EXPECT_THAT(lengthsAsked({{LengthMismatch, 2 << 20}, {AccessDenied, 0}}, {}),
                ElementsAre(FirstLength, 2U << 20));
}

}  // namespace
}  // namespace ThreadUtilities::platform
