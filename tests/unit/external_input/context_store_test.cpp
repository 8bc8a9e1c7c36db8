// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <thread>

#include <vesko/external_input.h>

#include "support/allocations.h"

namespace {

using vesko::external_input::context_store;

TEST(ContextStoreTest, KeepsEntriesAndHeadersInOrder) {
    using std::chrono::milliseconds;
    using Clock = std::chrono::system_clock;
    const auto now = [] {
        return std::chrono::floor<milliseconds>(Clock::now()).time_since_epoch().count();
    };
    const auto store = std::make_shared<context_store>();
    const long long before = now();
    store->addHeader("h");
    store->addEntry(std::string("e\0f", 3));
    const auto entries = store->getEntries();
    ASSERT_EQ(entries.size(), 2u);
    const auto& [isHeader, time, text] = entries[0];
    EXPECT_TRUE(isHeader);
    EXPECT_EQ(text, "h");
    EXPECT_LE(before, time);
    EXPECT_LE(time, now());
    EXPECT_FALSE(std::get<0>(entries[1]));
    EXPECT_EQ(std::get<2>(entries[1]), std::string("e\0f", 3));
}

TEST(ContextStoreTest, ATextThatCannotBeCopiedLeavesAnEmptyItem) {
    const auto store = std::make_shared<context_store>();
    const std::string longText(200, 'x');
    {
        allocations::FailAfter fail(0);
        EXPECT_THROW(store->addHeader(longText), std::bad_alloc);
    }
    const auto entries = store->getEntries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(std::get<2>(entries[0]), "");
}

// Each adder numbers its items. Whatever a reader sees while they add is whole, and each adder's
// items stand in their order; beyond the hundredth nothing is kept.
TEST(ContextStoreTest, ShowsWholeItemsToReadersWhileThreadsAdd) {
    constexpr int adders = 4;
    const auto textOf = [](int adder, int number) {
        return std::to_string(adder) + ' ' + std::to_string(number) + std::string(40, '.');
    };
    for (int round = 0; round < 50; ++round) {
        const auto store = std::make_shared<context_store>();
        std::atomic<int> ended{0};
        std::vector<std::thread> threads;
        for (int adder = 0; adder < adders; ++adder) {
            threads.emplace_back([&, adder] {
                for (int number = 0; number < 40; ++number) {
                    const std::string text = textOf(adder, number);
                    number % 2 == 0 ? store->addHeader(text) : store->addEntry(text);
                }
                ++ended;
            });
        }
        std::size_t seen = 0;
        for (bool isOver = false; !isOver;) {
            isOver = ended == adders;
            const auto entries = store->getEntries();
            ASSERT_GE(entries.size(), seen) << "what was shown stays";
            seen = entries.size();
            std::map<int, int> next;
            for (const auto& [isHeader, time, text] : entries) {
                const int adder = text.at(0) - '0';
                const int number = std::stoi(text.substr(2));
                ASSERT_EQ(text, textOf(adder, number));
                ASSERT_EQ(isHeader, number % 2 == 0);
                ASSERT_GT(time, 0);
                // Readers may miss what is being written, but never what they could see before.
                ASSERT_GE(number, next[adder]);
                next[adder] = number + 1;
            }
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(seen, 100u);
    }
}

TEST(ContextStoreTest, LivesAsLongAsItsCallersHoldIt) {
    std::thread([] {
        std::shared_ptr<context_store> first = context_store::getOrCreateStore();
        EXPECT_EQ(context_store::getOrCreateStore(), first);
        EXPECT_EQ(context_store::getStore().lock(), first);
        first->addEntry("e");

        first.reset();
        EXPECT_TRUE(context_store::getStore().expired());
        EXPECT_TRUE(context_store::getOrCreateStore()->getEntries().empty());
    }).join();
}

}  // namespace
