// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <ThreadUtilities/ScopedThreadName.h>
#include <ThreadUtilities/Threads.h>

#include "support/allocations.h"
#include "support/posted_location.h"

namespace app {
template <typename T>
class Queue {};
}  // namespace app

namespace {

using ThreadUtilities::getThreadName;
using ThreadUtilities::ScopedThreadName;
using ThreadUtilities::setThreadName;
using vesko::external_input::context_store;
using vesko::external_input::hint;
using vesko::source::location;

const location here = location::current("C:\\work\\net/Worker.cpp", 57, "Worker::run");

// A text as the second argument is no flag.
template <typename... Arguments>
constexpr bool canBeMadeFrom = std::is_constructible_v<ScopedThreadName, Arguments...>;
static_assert(canBeMadeFrom<const char*, bool> && canBeMadeFrom<std::string, int>);
static_assert(!canBeMadeFrom<const char*, const char (&)[2]> &&
              !canBeMadeFrom<std::string, const char*&> && !canBeMadeFrom<std::string, void*>);

TEST(ScopedThreadNameTest, NamesTheThreadUntilItEnds) {
    struct Case {
        std::function<void(std::optional<ScopedThreadName>&)> begin;
        std::string name;
    };
    const Case cases[] = {
        {[](auto& scope) { scope.emplace(here); }, "Worker.cpp:57:Worker::run"},
        {[](auto& scope) { scope.emplace("Upload", here); }, "Upload:Worker.cpp:57:Worker::run"},
        {[](auto& scope) { scope.emplace("", here); }, "Worker.cpp:57:Worker::run"},
        {[](auto& scope) { scope.emplace(typeid(app::Queue<int*>), here); },
         "Worker.cpp:57:<app::Queue<int*>>Worker::run"},
        {[](auto& scope) { scope.emplace("C:\\exactly:this", true); }, "C:\\exactly:this"},
        {[](auto& scope) { scope.emplace("", false); }, ""},
    };
    for (const Case& c : cases) {
        for (const std::string before : {"A", ""}) {
            onFreshThread([&] {
                setThreadName(before);
                std::optional<ScopedThreadName> scope;
                c.begin(scope);
                EXPECT_EQ(getThreadName(), c.name);
                scope.reset();
                EXPECT_EQ(getThreadName(), before) << "after " << c.name;
            });
        }
    }
}

TEST(ScopedThreadNameTest, TakesTheLineThatDeclaresIt) {
    onFreshThread([] {
        const std::string file = "scoped_thread_name_test.cpp:";
        const std::string function = std::string(":") + static_cast<const char*>(__func__);
        ScopedThreadName plain;
        EXPECT_EQ(getThreadName(), file + std::to_string(__LINE__ - 1) + function);
        {
            ScopedThreadName named("Upload");
            EXPECT_EQ(getThreadName(), "Upload:" + file + std::to_string(__LINE__ - 1) + function);
            setThreadName("changed meanwhile");
        }
        EXPECT_EQ(getThreadName(), file + std::to_string(__LINE__ - 7) + function);
    });
}

TEST(ScopedThreadNameTest, LeavesTheNameAloneWithoutFileOrFunction) {
    onFreshThread([] {
        setThreadName("A");
        for (const location& loc :
             {location::current(nullptr, 1, "f"), location::current("a.cpp", 1, nullptr)}) {
            ScopedThreadName first(loc);
            ScopedThreadName second("name", loc);
            ScopedThreadName third(typeid(int), loc);
            EXPECT_EQ(getThreadName(), "A");
        }
        EXPECT_EQ(getThreadName(), "A");

        location posted = postedFrom(hint("k", "posted"));
        posted.file = nullptr;
        ScopedThreadName scope(posted);
        EXPECT_EQ(hint::getExternalInputHintName(), "posted") << "hint and store come over";
    });
}

TEST(ScopedThreadNameTest, HandsTheHintOverAndPutsItBack) {
    std::shared_ptr<context_store> store;
    const location posted = postedFrom(hint("k", "posted"), &store);
    onFreshThread([&] {
        {
            ScopedThreadName scope(posted);
            EXPECT_EQ(hint::getExternalInputHintName(), "posted");
        }
        EXPECT_EQ(hint::getExternalInputHint(), nullptr) << "no hint before";

        hint("h", "own").setAsExternalInputHint();
        const std::shared_ptr<context_store> own = context_store::getOrCreateStore();
        {
            ScopedThreadName scope("name", posted);
            EXPECT_EQ(hint::getExternalInputHintId(), "k");
            {
                ScopedThreadName inner(here);
                EXPECT_EQ(hint::getExternalInputHintId(), "k") << "a location without a hint";
                hint::clearExternalInputHint();
            }
            EXPECT_EQ(hint::getExternalInputHintId(), "k");
        }
        EXPECT_EQ(hint::getExternalInputHintId(), "h");
        EXPECT_EQ(hint::getExternalInputHintName(), "own");
        EXPECT_EQ(context_store::getStore().lock(), store) << "the store is not put back";
        {
            ScopedThreadName scope(typeid(int), posted);
            EXPECT_EQ(hint::getExternalInputHintId(), "h") << "none is taken over";
        }
        EXPECT_EQ(hint::getExternalInputHint(), nullptr) << "but one ends";
    });
}

TEST(ScopedThreadNameTest, CopiesPutBackOnceMore) {
    const location posted = postedFrom(hint("k", "posted"));
    onFreshThread([&] {
        setThreadName("A");
        hint("h", "own").setAsExternalInputHint();
        std::optional<ScopedThreadName> copy;
        std::optional<ScopedThreadName> assigned;
        {
            ScopedThreadName scope(posted);
            copy.emplace(scope);
            assigned.emplace("other", false);
            *assigned = scope;
            EXPECT_EQ(getThreadName(), "other") << "assigning names nothing";
        }
        for (std::optional<ScopedThreadName>* each : {&copy, &assigned}) {
            setThreadName("B");
            hint::clearExternalInputHint();
            each->reset();
            EXPECT_EQ(getThreadName(), "A");
            EXPECT_EQ(hint::getExternalInputHintId(), "h");
        }
    });
}

// Whatever allocation of the constructor is the one that fails, nothing comes out, and the object
// ends as any other: with the old name, and ready for the next scope.
TEST(ScopedThreadNameTest, NeverThrowsFromALocation) {
    const std::string longName(100, 'n');
    const location posted = postedFrom(hint("k", longName));
    onFreshThread([&] {
        const std::string before(100, 'b');
        setThreadName(before);
        bool wasWhole = false;
        for (int allowed = 0; !wasWhole; ++allowed) {
            ASSERT_LT(allowed, 200);
            hint::clearExternalInputHint();
            std::optional<ScopedThreadName> scope;
            {
                allocations::FailAfter fail(allowed);
                scope.emplace(longName, posted);
            }
            wasWhole = hint::getExternalInputHintId() == "k";
            scope.reset();
            ASSERT_EQ(getThreadName(), before);
            ASSERT_EQ(hint::getExternalInputHint(), nullptr);
        }
    });
}

}  // namespace
