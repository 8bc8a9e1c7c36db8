// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>
#include <vesko/external_input.h>
#include <vesko/source_location.h>

#include <atomic>
#include <chrono>
#include <map>
#include <sstream>
#include <thread>

#include "foundation/random.h"
#include "scripted_platform/script.h"
#include "support/allocations.h"
#include "support/posted_location.h"

namespace {

using vesko::external_input::context_store;
using vesko::external_input::hint;
using vesko::source::location;

// Longer than what a string keeps in itself.
const std::string longName = "a name that is too long for the string object itself";

std::string printed(const hint& h) {
    std::ostringstream text;
    text << h;
    return text.str();
}

/// What the calling thread says of its hint through all three getters.
std::string current() {
    const std::shared_ptr<hint> copy = hint::getExternalInputHint();
    EXPECT_EQ(copy != nullptr ? copy->name : "", hint::getExternalInputHintName());
    EXPECT_EQ(copy != nullptr ? copy->id : "", hint::getExternalInputHintId());
    return copy != nullptr ? printed(*copy) : "none";
}

TEST(HintTest, BelongsToItsThread) {
    onFreshThread([] {
        EXPECT_EQ(current(), "none");
        hint("hint000001", "a").setAsExternalInputHint();
        EXPECT_EQ(current(), "a hint000001");
        onFreshThread([] { EXPECT_EQ(current(), "none"); });

        const std::shared_ptr<hint> copy = hint::getExternalInputHint();
        hint("hint000002", "").setAsExternalInputHint();
        EXPECT_EQ(current(), "none") << "an id without a name";
        EXPECT_EQ(printed(*copy), "a hint000001");
        EXPECT_EQ(printed(hint()), " ");
    });
}

TEST(HintTest, GuardsEndWhateverIsCurrent) {
    onFreshThread([] {
        auto outer = hint::createExternalInputHint("outer");
        {
            auto inner = hint::createExternalInputHint("inner");
            inner = outer;  // hands nothing over
            EXPECT_EQ(hint::getExternalInputHintName(), "inner");
        }
        EXPECT_EQ(current(), "none");
    });
}

TEST(HintTest, IdsHoldARandomNumberAndACount) {
    static int drawn = 0;
    vesko::randomIntHook = [](int lo, int hi, bool randomSign) {
        EXPECT_TRUE(lo == 0 && hi == 999 && !randomSign);
        return drawn;
    };
    const auto numberOfNext = [] {
        auto guard = hint::createExternalInputHint("x");
        const std::string id = hint::getExternalInputHintId();
        EXPECT_EQ(id.size(), 10u);
        EXPECT_EQ(id.substr(0, 4), "hint");
        return std::stoi(id.substr(4));
    };
    const int before = numberOfNext();
    for (int i = 1; i <= 1001; ++i) {
        drawn = i % 1000;
        ASSERT_EQ(numberOfNext(), drawn * 1000 + (before + i) % 1000);
    }
    vesko::randomIntHook = vesko::randomInt;
}

TEST(LocationTest, PrintsFileLineAndFunction) {
    EXPECT_EQ(location::current("C:\\src\\net/Parser.cpp", 120, "Parser::open").to_string(),
              "Parser.cpp:120:Parser::open");
    EXPECT_EQ(location::current("folder/", -1, nullptr).to_string(), ":4294967295:");
    struct Grouping : std::numpunct<char> {
        std::string do_grouping() const override { return "\3"; }
    };
    std::ostringstream text;
    text.imbue(std::locale(text.getloc(), new Grouping));
    text << location::current(nullptr, 123456, "f");
    EXPECT_EQ(text.str(), ":123456:f");
}

TEST(LocationTest, CapturesHintAndStoreOfItsThread) {
    onFreshThread([] {
        const location bare = location::current("a.cpp", 1, "f");
        EXPECT_EQ(bare.externalInputHint, nullptr);
        EXPECT_EQ(bare.contextStore.lock(), nullptr);

        hint("hint042007", "Open project").setAsExternalInputHint();
        std::shared_ptr<context_store> store = context_store::getOrCreateStore();
        const location full = location::current("a.cpp", 1, "f");
        hint::clearExternalInputHint();
        EXPECT_EQ(full.to_string(), "a.cpp:1:f externalInputHint=Open project hint042007");
        EXPECT_EQ(full.contextStore.lock(), store);
        location nameless = full;
        nameless.externalInputHint = std::make_shared<hint>("k", "");
        EXPECT_EQ(nameless.to_string(), "a.cpp:1:f");
        EXPECT_EQ(location::current().contextStore.lock(), store) << "a store without a hint";

        {
            hint("hint000001", longName).setAsExternalInputHint();
            allocations::FailAfter fail(0);
            EXPECT_EQ(location::current().externalInputHint, nullptr) << "without memory";
        }
        hint::clearExternalInputHint();
        store.reset();
        EXPECT_EQ(full.contextStore.lock(), nullptr) << "a location keeps no store alive";
        const std::weak_ptr<context_store> empty;
        const location expired = location::current();
        EXPECT_FALSE(expired.contextStore.owner_before(empty) ||
                     empty.owner_before(expired.contextStore));
    });
}

TEST(LocationTest, HandsHintAndStoreOver) {
    std::shared_ptr<context_store> posted;
    const location full = postedFrom(hint("k", "posted"), &posted);
    onFreshThread([&] {
        hint::copyThreadStorageIfNecessary(full);
        EXPECT_EQ(current(), "posted k");
        EXPECT_EQ(context_store::getOrCreateStore(), posted);

        hint::copyThreadStorageIfNecessary(postedFrom(hint("k", "same id")));
        EXPECT_EQ(current(), "posted k");
        hint::copyThreadStorageIfNecessary(postedFrom(hint("", "")));
        EXPECT_EQ(current(), "posted k") << "nothing captured";
        EXPECT_EQ(context_store::getStore().lock(), posted);
    });
    onFreshThread([&] {
        hint::copyThreadStorageIfNecessary(postedFrom(hint("", "without an id")));
        EXPECT_EQ(current(), "none") << "its id equals that of no hint";

        const std::shared_ptr<context_store> own = context_store::getOrCreateStore();
        std::shared_ptr<context_store> ended;
        const location endedStore = postedFrom(hint("k", "posted"), &ended);
        ended.reset();
        hint::copyThreadStorageIfNecessary(endedStore);
        EXPECT_EQ(context_store::getStore().lock(), own);
        hint::copyThreadStorageIfNecessary(full);
        EXPECT_EQ(context_store::getStore().lock(), posted) << "a live store of the thread's own";
    });
}

TEST(ThreadValuesTest, AreNotBegunWhenNothingWouldReleaseThem) {
    std::shared_ptr<context_store> posted;
    const location full = postedFrom(hint("k", longName), &posted);
    ThreadUtilities::scripted::threadExitCallsAreRefused = true;
    onFreshThread([&] {
        const long before = allocations::alive();
        hint(longName, longName).setAsExternalInputHint();
        EXPECT_EQ(current(), "none");
        {
            auto guard = hint::createExternalInputHint(longName);
        }
        hint::copyThreadStorageIfNecessary(full);
        EXPECT_EQ(current(), "none");
        EXPECT_EQ(context_store::getStore().lock(), nullptr);

        {
            const std::shared_ptr<context_store> first = context_store::getOrCreateStore();
            EXPECT_NE(first, context_store::getOrCreateStore());
            first->addEntry(longName);
            EXPECT_EQ(first->getEntries().size(), 1u) << "it works like any other";
        }
        EXPECT_EQ(allocations::alive(), before);
    });
    ThreadUtilities::scripted::threadExitCallsAreRefused = false;
}

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

TEST(ContextStoreTest, ShowsAnItemWhenItsTextIsCopiedOrCannotBe) {
    static context_store store;
    static std::size_t seenMeanwhile = 1;
    const std::string longText(200, 'x');
    allocations::callFromNext([] { seenMeanwhile = store.getEntries().size(); });
    store.addEntry(longText);
    EXPECT_EQ(seenMeanwhile, 0U);
    {
        allocations::FailAfter fail(0);
        EXPECT_THROW(store.addHeader(longText), std::bad_alloc);
    }
    const auto entries = store.getEntries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(std::get<2>(entries[0]), longText);
    EXPECT_EQ(std::get<2>(entries[1]), "");
}

// Each adder numbers its items: they stand in their order, and beyond the hundredth of all nothing
// is kept.
TEST(ContextStoreTest, GivesEachOfItsPlacesToOneOfAllThatAdd) {
    for (int round = 0; round < 50; ++round) {
        context_store store;
        std::vector<std::thread> threads;
        for (int adder = 0; adder < 4; ++adder) {
            threads.emplace_back([&store, adder] {
                for (int number = 0; number < 40; ++number) {
                    store.addEntry(std::to_string(adder) + ' ' + std::to_string(number));
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        const auto entries = store.getEntries();
        ASSERT_EQ(entries.size(), 100u);
        int next[4] = {};
        for (const auto& [isHeader, time, text] : entries) {
            int& number = next[text.at(0) - '0'];
            ASSERT_EQ(std::stoi(text.substr(2)), number++);
        }
    }
}

}  // namespace
