// Hints, stores and scopes in the hands of code that runs while a thread ends: destructors of
// `thread_local` objects and of thread-specific values, made before and after the library's own.

#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <latch>
#include <thread>
#include <vector>

#include <ThreadUtilities/ScopedThreadName.h>
#include <ThreadUtilities/Threads.h>

#include "platform/thread_exit.h"
#include "support/allocations.h"
#include "support/fresh_thread.h"

namespace {

using ThreadUtilities::ScopedThreadName;
using vesko::external_input::context_store;
using vesko::external_input::hint;
using vesko::source::location;

// Longer than what a string keeps in itself.
const std::string longText = "a text that is too long for the string object itself";

/// A thread that posted work with a hint and a store, so that there is something to adopt.
struct Posted {
    Posted() : from(location::current()) {
        onFreshThread([this] {
            hint("posted", longText).setAsExternalInputHint();
            store = context_store::getOrCreateStore();
            from = location::current();
        });
    }

    location from;
    std::shared_ptr<context_store> store;
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
    { const auto guard = hint::createExternalInputHint(longText); }
    hint("own", longText).setAsExternalInputHint();
}

/// Runs `body` when the thread that it was made on ends.
struct AtEnd {
    std::function<void()> body;
    ~AtEnd() {
        if (body) {
            body();
        }
    }
};

/// An object of the calling thread for each number, made on its first use.
template <int>
AtEnd& threadLocalObject() {
    thread_local AtEnd object;
    return object;
}

/// A thread-specific value whose destructor runs `body` in so many of the system's rounds.
class SpecificValue {
 public:
    SpecificValue() { EXPECT_EQ(pthread_key_create(&key, run), 0); }
    ~SpecificValue() { pthread_key_delete(key); }

    SpecificValue(const SpecificValue&) = delete;
    SpecificValue& operator=(const SpecificValue&) = delete;

    void set(int rounds, std::function<void()> body) {
        toRun = std::move(body);
        roundsLeft = rounds;
        pthread_setspecific(key, this);
    }

 private:
    static void run(void* self) {
        auto* value = static_cast<SpecificValue*>(self);
        value->toRun();
        if (--value->roundsLeft > 0) {
            pthread_setspecific(value->key, value);
        }
    }

    pthread_key_t key{};
    std::function<void()> toRun;
    int roundsLeft = 0;
};

/// Blocks that a thread running `body` leaves behind, once everything that is made only once is.
template <typename Body>
long leftBehind(Body body) {
    onFreshThread(body);
    const long before = allocations::alive();
    for (int i = 0; i < 10; ++i) {
        onFreshThread(body);
    }
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
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer takes a thread for ended before all destructors ran";
#endif
    const Posted posted;
    SpecificValue value;
    for (const bool isUsedBefore : {true, false}) {
        int runs = 0;
        EXPECT_EQ(leftBehind([&] {
                      value.set(PTHREAD_DESTRUCTOR_ITERATIONS, [&] {
                          useAll(posted);
                          ++runs;
                      });
                      if (isUsedBefore) {
                          useAll(posted);
                      }
                  }),
                  0)
            << isUsedBefore;
        EXPECT_EQ(runs, 11 * PTHREAD_DESTRUCTOR_ITERATIONS);
    }
}

int exitCalls = 0;
void countExitCall() noexcept {
    ++exitCalls;
}

TEST(ThreadEndTest, ExitCallsAreMadeWithAndWithoutAKey) {
    std::vector<pthread_key_t> allKeys;
    for (const bool hasKey : {true, false}) {
        for (pthread_key_t key; !hasKey && pthread_key_create(&key, nullptr) == 0;) {
            allKeys.push_back(key);
        }
        ThreadUtilities::platform::ThreadExitCall call(countExitCall);
        exitCalls = 0;
        onFreshThread([&] { EXPECT_TRUE(call.request()); });
        EXPECT_EQ(exitCalls, 1);
        onFreshThread([&] {
            // Ends after the call where that is one of a `thread_local` object's.
            threadLocalObject<1>().body = [&] { EXPECT_EQ(call.request(), hasKey); };
            EXPECT_TRUE(call.request());
        });
        EXPECT_EQ(exitCalls, 2);
    }
    for (const pthread_key_t key : allKeys) {
        pthread_key_delete(key);
    }
}

}  // namespace
