// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/ScopedThreadName.h>
#include <ThreadUtilities/Threads.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "platform/thread_exit.h"
#include "support/allocations.h"
#include "support/forced_unwinding.h"
#include "support/fork_child.h"
#include "support/posted_location.h"
#include "support/sanitizers.h"

// Hints, stores and scopes in the hands of code that runs while a thread ends: destructors of
// `thread_local` objects and of thread-specific values, made before and after the library's own;
// and scopes in a process that is copied or ends under them.

namespace {

using ThreadUtilities::IScopedThreadCallback;
using ThreadUtilities::runInForkChild;
using ThreadUtilities::ScopedThreadName;
using ThreadUtilities::underThreadSanitizer;
using vesko::external_input::context_store;
using vesko::external_input::hint;
using vesko::source::location;

// Longer than what a string keeps in itself.
const std::string longText = "a text that is too long for the string object itself";

/// What another thread has posted with a hint and a store, so that there is something to adopt.
struct Posted {
    std::shared_ptr<context_store> store;
    location from = postedFrom(hint("posted", longText), &store);
};

/// Everything that a thread can do, and that has to give back what it takes.
void useAll(const Posted& posted) {
    hint::getExternalInputHint();
    {
        ScopedThreadName outer(longText, true);
        ScopedThreadName scope(posted.from);
        if (const auto adopted = hint::getExternalInputHint()) {
            EXPECT_EQ(adopted->name, longText);
        }
        context_store::getOrCreateStore()->addEntry("x");
        location::current().to_string();
    }
    EXPECT_EQ(hint::getExternalInputHint(), nullptr);
    {
        const auto guard = hint::createExternalInputHint(longText);
    }
    hint("own", longText).setAsExternalInputHint();
}

/// Runs `body` when the thread that it was made on ends.
struct AtEnd {
    std::function<void()> body = [] {};
    ~AtEnd() { body(); }
};

/// An object of the calling thread for each number, made on its first use.
template <int>
AtEnd& threadLocalObject() {
    thread_local AtEnd object;
    return object;
}

/// A thread-specific value whose destructor runs `inDestructor` in so many of the system's rounds.
pthread_key_t key;
std::function<void()> inDestructor;
int roundsLeft = 0;

void runInDestructor(void* value) {
    inDestructor();
    if (--roundsLeft > 0) {
        pthread_setspecific(key, value);
    }
}

/// Blocks that a thread running `body` leaves behind, once everything that is made only once is.
/// What is kept of the threads themselves goes at the next look at all of them.
template <typename Body>
long leftBehind(Body body) {
    onFreshThread(body);
    ThreadUtilities::getThreadIds();
    const long before = allocations::alive();
    for (int i = 0; i < 10; ++i) {
        onFreshThread(body);
    }
    ThreadUtilities::getThreadIds();
    return allocations::alive() - before;
}

TEST(ThreadEndTest, DestructorsOfThreadLocalObjectsFindTheValues) {
    const Posted posted;
    int runs = 0;
    EXPECT_EQ(leftBehind([&] {
                  const auto use = [&posted, &runs] {
                      EXPECT_EQ(hint::getExternalInputHintName(), longText);
                      useAll(posted);
                      ++runs;
                  };
                  threadLocalObject<1>().body = use;
                  hint("own", longText).setAsExternalInputHint();
                  threadLocalObject<2>().body = use;
              }),
              0);
    EXPECT_EQ(runs, 22);
}

// Keys made before and after those of the library, and values that come back in every round that
// the system grants, the last one included.
TEST(ThreadEndTest, DestructorsOfSpecificValuesLeaveNothing) {
    if (underThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer takes a thread for ended before all destructors ran";
    }
    const Posted posted;
    ASSERT_EQ(pthread_key_create(&key, runInDestructor), 0);
    for (const bool isUsedBefore : {true, false}) {
        int runs = 0;
        inDestructor = [&] {
            if (isUsedBefore && roundsLeft == PTHREAD_DESTRUCTOR_ITERATIONS) {
                EXPECT_EQ(hint::getExternalInputHintName(), longText) << "still there at first";
            }
            useAll(posted);
            ++runs;
        };
        EXPECT_EQ(leftBehind([&] {
                      roundsLeft = PTHREAD_DESTRUCTOR_ITERATIONS;
                      pthread_setspecific(key, &key);
                      if (isUsedBefore) {
                          useAll(posted);
                      }
                  }),
                  0)
            << isUsedBefore;
        EXPECT_EQ(runs, 11 * PTHREAD_DESTRUCTOR_ITERATIONS);
    }
    pthread_key_delete(key);
}

int exitCalls = 0;
void countExitCall() noexcept {
    ++exitCalls;
}

// The library's key is taken at load, before the host can use them all up.
TEST(ThreadEndTest, ExitCallsAreMadeWhateverKeysTheHostTakes) {
    onFreshThread([] {});  // a standard library takes a key of its own for the first
    std::vector<pthread_key_t> allKeys;
    for (pthread_key_t taken; pthread_key_create(&taken, nullptr) == 0;) {
        allKeys.push_back(taken);
    }
    ThreadUtilities::platform::ThreadExitCall call(countExitCall);
    onFreshThread([&] { EXPECT_TRUE(call.request()); });
    EXPECT_EQ(exitCalls, 1);
    for (const pthread_key_t taken : allKeys) {
        pthread_key_delete(taken);
    }
}

class Counter : public IScopedThreadCallback {
 public:
    void onScopedThreadStart() override { ++starts; }
    void onScopedThreadEnd() override { ++ends; }

    std::atomic<int> starts{0};
    std::atomic<int> ends{0};
};

// The children are made while other threads hold the observers' lock and change their list.
TEST(ScopedThreadNameTest, FindsTheObserversFreeInAForkChild) {
    if (ThreadUtilities::underAddressSanitizer) {
        GTEST_SKIP() << ThreadUtilities::copiesMayHang;
    }
    const auto counter = std::make_shared<Counter>();
    std::vector<std::jthread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                ScopedThreadName::registerCallback(counter);
                ScopedThreadName::unRegisterCallback(counter);
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(runInForkChild([] {
                      const auto own = std::make_shared<Counter>();
                      ScopedThreadName::registerCallback(own);
                      {
                          ScopedThreadName scope("x", true);
                      }
                      ScopedThreadName::unRegisterCallback(own);
                      return own->starts == 1 && own->ends == 1;
                  }),
                  0);
    }
}

/// Memory that only code of a library that was unloaded since could give back.
template <typename Value>
struct UnloadedAllocator {
    using value_type = Value;
    UnloadedAllocator() = default;
    template <typename Other>
    explicit UnloadedAllocator(const UnloadedAllocator<Other>&) {}

    Value* allocate(std::size_t count) { return std::allocator<Value>().allocate(count); }
    void deallocate(Value*, std::size_t) { _exit(8); }
    bool operator==(const UnloadedAllocator&) const = default;
};

TEST(ScopedThreadNameTest, OutlivesTheEndOfMain) {
    if (ThreadUtilities::underAddressSanitizer) {
        GTEST_SKIP() << "its leak check finds what the library gave up when the process was copied";
    }
    EXPECT_EQ(runInForkChild([] {
                  const auto counter = std::make_shared<Counter>();
                  ScopedThreadName::registerCallback(
                      std::allocate_shared<Counter>(UnloadedAllocator<Counter>()));
                  ScopedThreadName::registerCallback(counter);
                  for (int i = 0; i < 4; ++i) {
                      std::thread([] {
                          while (true) {
                              ScopedThreadName scope("x", true);
                          }
                      }).detach();
                  }
                  while (counter->starts < 100) {
                      std::this_thread::yield();
                  }
                  std::exit(7);
                  return 0;
              }),
              7);
}

struct EndsItsThread : IScopedThreadCallback {
    void onScopedThreadStart() override { atStart ? end() : void(); }
    void onScopedThreadEnd() override { atStart ? void() : end(); }
    static void end() {
        pthread_cancel(pthread_self());
        pthread_testcancel();
    }

    bool atStart = false;
};

/// What a thread finds when its outermost object is unwound.
struct Found {
    std::string& name;
    std::string& hintId;
    ~Found() {
        name = ThreadUtilities::getThreadName();
        hintId = vesko::external_input::hint::getExternalInputHintId();
    }
};

TEST(ScopedThreadNameTest, LetsObserversEndTheirThread) {
    if (!ThreadUtilities::threadsMayUnwind) {
        GTEST_SKIP() << ThreadUtilities::unwindersDisagree;
    }
    const auto observer = std::make_shared<EndsItsThread>();
    ScopedThreadName::registerCallback(observer);
    for (int variant = 0; variant < 4; ++variant) {
        observer->atStart = (variant & 1) != 0;
        std::string name;
        std::string hintId;
        const bool byName = (variant & 2) != 0;
        std::function<void()> body = [&] {
            hint("posted", "h").setAsExternalInputHint();
            const auto posted = vesko::source::location::current();
            hint("own", "h").setAsExternalInputHint();
            const ScopedThreadName unheard("outer", false);
            const Found found{name, hintId};
            if (byName) {
                const ScopedThreadName scope("x", true);
            } else {
                const ScopedThreadName scope(posted);
            }
        };
        pthread_t thread;
        ASSERT_EQ(pthread_create(
                      &thread, nullptr,
                      [](void* argument) -> void* {
                          (*static_cast<std::function<void()>*>(argument))();
                          return nullptr;
                      },
                      &body),
                  0);
        void* result = nullptr;
        pthread_join(thread, &result);
        EXPECT_EQ(result, PTHREAD_CANCELED) << variant;
        EXPECT_EQ(name, "outer") << variant;
        // An object that has begun puts back what it saved, one by name saves nothing.
        EXPECT_EQ(hintId, byName && !observer->atStart ? "" : "own") << variant;
    }
    ScopedThreadName::unRegisterCallback(observer);
}

}  // namespace
