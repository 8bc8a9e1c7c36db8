// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Scopes in a process that is copied or ends under them.

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <ThreadUtilities/ScopedThreadName.h>
#include <ThreadUtilities/Threads.h>

#include "support/forced_unwinding.h"
#include "support/fork_child.h"
#include "support/sanitizers.h"

namespace {

using ThreadUtilities::IScopedThreadCallback;
using ThreadUtilities::runInForkChild;
using ThreadUtilities::ScopedThreadName;

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

/// Ends its thread as `how` says, in one of its calls.
struct EndsItsThread : IScopedThreadCallback {
    void onScopedThreadStart() override { atStart ? how() : void(); }
    void onScopedThreadEnd() override { atStart ? void() : how(); }

    bool atStart = false;
    void (*how)() = nullptr;
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

void exitThread() {
    pthread_exit(PTHREAD_CANCELED);
}

void beCancelled() {
    pthread_cancel(pthread_self());
    pthread_testcancel();
}

TEST(ScopedThreadNameTest, LetsObserversEndTheirThread) {
    if (!ThreadUtilities::threadsMayUnwind) {
        GTEST_SKIP() << ThreadUtilities::unwindersDisagree;
    }
    using vesko::external_input::hint;
    const auto observer = std::make_shared<EndsItsThread>();
    ScopedThreadName::registerCallback(observer);
    for (int variant = 0; variant < 8; ++variant) {
        observer->atStart = (variant & 1) != 0;
        observer->how = (variant & 2) != 0 ? exitThread : beCancelled;
        std::string name;
        std::string hintId;
        const bool byName = (variant & 4) != 0;
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
