// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/ScopedThreadName.h>
#include <ThreadUtilities/Threads.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "support/allocations.h"
#include "support/posted_location.h"

namespace app {
template <typename T>
class Queue {};
}  // namespace app

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using ThreadUtilities::getThreadName;
using ThreadUtilities::IScopedThreadCallback;
using ThreadUtilities::ScopedThreadName;
using ThreadUtilities::setThreadName;
using vesko::external_input::context_store;
using vesko::external_input::hint;
using vesko::source::location;
using Scope = std::optional<ScopedThreadName>;

const location here = location::current("C:\\work\\net/Worker.cpp", 57, "Worker::run");

// A text as the second argument is no flag.
template <typename... Arguments>
constexpr bool canBeMadeFrom = std::is_constructible_v<ScopedThreadName, Arguments...>;
static_assert(canBeMadeFrom<const char*, bool> && canBeMadeFrom<std::string, int>);
static_assert(!canBeMadeFrom<const char*, const char (&)[2]> &&
              !canBeMadeFrom<std::string, const char*&> && !canBeMadeFrom<std::string, void*>);

TEST(ScopedThreadNameTest, NamesTheThreadUntilItEnds) {
    struct Case {
        std::function<void(Scope&)> begin;
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
                Scope scope;
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
        const std::string file = "scoped_name_test.cpp:";
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

TEST(ScopedThreadNameTest, ACopyPutsBackOnceMore) {
    onFreshThread([] {
        setThreadName("A");
        hint("h", "own").setAsExternalInputHint();
        Scope copy;
        {
            ScopedThreadName scope(here);
            copy.emplace(scope);
        }
        setThreadName("B");
        hint::clearExternalInputHint();
        copy.reset();
        EXPECT_EQ(getThreadName(), "A");
        EXPECT_EQ(hint::getExternalInputHintId(), "h");
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
            Scope scope;
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

/// Writes down what it hears, with the thread's name and hint at that moment.
class Recorder : public IScopedThreadCallback {
 public:
    Recorder(std::vector<std::string>& heardEvents, std::string ownName)
        : events(heardEvents), name(std::move(ownName)) {}

    void onScopedThreadStart() override { record("start", atStart); }
    void onScopedThreadEnd() override { record("end", atEnd); }

    std::function<void()> atStart;
    std::function<void()> atEnd;

 private:
    void record(const std::string& event, const std::function<void()>& then) {
        const std::string currentHint = hint::getExternalInputHintName();
        events.push_back(name + ' ' + event + ' ' + getThreadName() +
                         (currentHint.empty() ? "" : '/' + currentHint));
        if (then) {
            then();
        }
    }

    std::vector<std::string>& events;
    std::string name;
};

class NotificationsTest : public testing::Test {
 protected:
    ~NotificationsTest() override {
        ScopedThreadName::deinitNotifier();
        ScopedThreadName::initNotifier();
    }

    std::shared_ptr<Recorder> add(const std::string& name) {
        auto observer = std::make_shared<Recorder>(events, name);
        ScopedThreadName::registerCallback(observer);
        return observer;
    }

    /// What was heard since the last call.
    std::vector<std::string> heard() { return std::exchange(events, {}); }

    std::vector<std::string> events;
};

TEST_F(NotificationsTest, AnnounceTheOutermostScopeThatMayNotify) {
    const auto observer = add("a");
    onFreshThread([&] {
        {
            ScopedThreadName silent("silent", false);
            EXPECT_THAT(heard(), IsEmpty());
            ScopedThreadName outer("outer", true);
            EXPECT_THAT(heard(), ElementsAre("a start outer"));
            {
                ScopedThreadName inner("inner", true);
                ScopedThreadName innermost(location::current("a.cpp", 1, "f"));
                ScopedThreadName copy(outer);
            }
            EXPECT_THAT(heard(), IsEmpty());
        }
        EXPECT_THAT(heard(), ElementsAre("a end outer"));

        {
            ScopedThreadName scope(location::current(nullptr, 1, "f"));
        }
        EXPECT_THAT(heard(), IsEmpty()) << "a scope that names nothing";
    });
}

TEST_F(NotificationsTest, CallRegistrationsInOrder) {
    const auto nameOnce = [] { ScopedThreadName scope("x", true); };
    auto first = add("a");
    auto second = add("b");
    const auto third = std::make_shared<Recorder>(events, "c");
    ScopedThreadName::registerCallback(first);
    ScopedThreadName::registerCallback(nullptr);
    ScopedThreadName::unRegisterCallback(third);
    nameOnce();
    EXPECT_THAT(heard(), ElementsAre("a start x", "b start x", "a start x", "a end x", "b end x",
                                     "a end x"));
    ScopedThreadName::unRegisterCallback(first);
    first->atStart = [&] {
        ScopedThreadName::registerCallback(third);
        second.reset();
    };
    nameOnce();
    EXPECT_THAT(heard(), ElementsAre("b start x", "a start x", "a end x", "c end x"))
        << "an ended observer is skipped";
    first->atStart = [] { ScopedThreadName::deinitNotifier(); };
    nameOnce();
    EXPECT_THAT(heard(), ElementsAre("a start x", "c start x")) << "an event under way is finished";
}

TEST_F(NotificationsTest, AreOffBetweenDeinitAndInit) {
    auto observer = add("a");
    Scope scope;
    scope.emplace("x", true);
    ScopedThreadName::deinitNotifier();
    scope.reset();
    EXPECT_THAT(heard(), ElementsAre("a start x"));

    scope.emplace("x", true);
    ScopedThreadName::registerCallback(observer);
    ScopedThreadName::initNotifier();
    scope.reset();
    EXPECT_THAT(heard(), IsEmpty()) << "registered before and while off";

    ScopedThreadName::deinitNotifier();
    scope.emplace("x", true);
    ScopedThreadName::initNotifier();
    ScopedThreadName::registerCallback(observer);
    scope.reset();
    EXPECT_THAT(heard(), ElementsAre("a end x")) << "what counts is the moment of the event";
    scope.emplace("x", true);
    *scope = ScopedThreadName("silent", false);
    scope.reset();
    EXPECT_THAT(heard(), ElementsAre("a start x")) << "the assignment took the flag away";
}

TEST_F(NotificationsTest, AThrowingStartIsDroppedByScopesOfALocationOnly) {
    auto first = add("a");
    auto second = add("b");
    first->atStart = [] { throw std::runtime_error("no"); };
    onFreshThread([&] {
        hint("h", "own").setAsExternalInputHint();
        const location posted = location::current("a.cpp", 1, "f");
        hint("k", "before").setAsExternalInputHint();
        {
            ScopedThreadName scope(posted);
            EXPECT_EQ(getThreadName(), "a.cpp:1:f");
            EXPECT_EQ(hint::getExternalInputHintId(), "k") << "the steps behind are skipped";
        }
        EXPECT_EQ(getThreadName(), "");
        EXPECT_EQ(hint::getExternalInputHint(), nullptr) << "none was saved";
        EXPECT_THAT(heard(), ElementsAre("a start a.cpp:1:f/before", "a end a.cpp:1:f/before",
                                         "b end a.cpp:1:f/before"));

        hint("h", "own").setAsExternalInputHint();
        EXPECT_THROW(const ScopedThreadName name("x", true), std::runtime_error);
        EXPECT_EQ(getThreadName(), "");
        EXPECT_EQ(hint::getExternalInputHintId(), "h");
        first->atStart = nullptr;
        heard();
        {
            ScopedThreadName scope("y", true);
        }
        EXPECT_THAT(heard(),
                    ElementsAre("a start y/own", "b start y/own", "a end y/own", "b end y/own"));
    });
}

TEST_F(NotificationsTest, AThrowingEndLeavesNameAndHint) {
    auto observer = add("a");
    observer->atEnd = [] { throw std::runtime_error("no"); };
    onFreshThread([&] {
        hint("h", "own").setAsExternalInputHint();
        const location posted = location::current("a.cpp", 1, "f");
        hint::clearExternalInputHint();
        {
            ScopedThreadName scope(posted);
        }
        EXPECT_EQ(getThreadName(), "a.cpp:1:f");
        EXPECT_EQ(hint::getExternalInputHintId(), "h");
        {
            ScopedThreadName scope("next", true);
        }
        EXPECT_THAT(heard(), ElementsAre("a start a.cpp:1:f", "a end a.cpp:1:f/own",
                                         "a start next/own", "a end next/own"));
    });
}

TEST_F(NotificationsTest, ScopesThatObserversBeginAreAnnouncedToACertainDepth) {
    auto observer = add("a");
    observer->atStart = [] { ScopedThreadName nested("nested", true); };
    observer->atEnd = [] { ScopedThreadName again("again", true); };
    for (int turn = 0; turn < 2; ++turn) {
        {
            ScopedThreadName scope("x", true);
        }
        EXPECT_THAT(heard(),
                    ElementsAre("a start x", "a end x", "a start again", "a end again",
                                "a start again", "a end again", "a start again", "a end again"));
    }
}

// An observer that ends while the list is searched must not do so under the list's lock, because
// its destructor may use the list.
thread_local bool isSearching = false;

class Unregistering : public IScopedThreadCallback {
 public:
    ~Unregistering() override {
        if (isSearching) {
            ScopedThreadName::unRegisterCallback(unrelated);
        }
    }
    void onScopedThreadStart() override {}
    void onScopedThreadEnd() override {}

 private:
    std::shared_ptr<IScopedThreadCallback> unrelated = std::make_shared<Recorder>(unheard, "");
    std::vector<std::string> unheard;
};

TEST_F(NotificationsTest, ObserversMayEndWhileOthersSearchAndCallThem) {
    std::atomic<bool> isOver{false};
    std::thread searching([&] {
        isSearching = true;
        std::vector<std::string> none;
        const auto unknown = std::make_shared<Recorder>(none, "unknown");
        while (!isOver) {
            ScopedThreadName::unRegisterCallback(unknown);
        }
    });
    std::thread naming([&] {
        while (!isOver) {
            ScopedThreadName scope("x", true);
        }
    });
    for (int round = 0; round < 200; ++round) {
        std::vector<std::shared_ptr<Unregistering>> observers(32);
        for (auto& observer : observers) {
            observer = std::make_shared<Unregistering>();
            ScopedThreadName::registerCallback(observer);
        }
        observers.clear();
        ScopedThreadName::deinitNotifier();
        ScopedThreadName::initNotifier();
    }
    isOver = true;
    searching.join();
    naming.join();
}

}  // namespace
