// Scopes in a process that is copied or ends under them.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include <ThreadUtilities/ScopedThreadName.h>

#include "support/copied_process.h"
#include "support/sanitizers.h"

namespace {

using ThreadUtilities::IScopedThreadCallback;
using ThreadUtilities::runInCopy;
using ThreadUtilities::ScopedThreadName;

class Counter : public IScopedThreadCallback {
 public:
    void onScopedThreadStart() override { ++starts; }
    void onScopedThreadEnd() override { ++ends; }

    std::atomic<int> starts{0};
    std::atomic<int> ends{0};
};

// The copies are made while other threads hold the observers' lock and change their list.
TEST(ScopedThreadNameTest, FindsTheObserversFreeInACopiedProcess) {
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
        EXPECT_EQ(runInCopy([] {
                      const auto own = std::make_shared<Counter>();
                      ScopedThreadName::registerCallback(own);
                      { ScopedThreadName scope("x", true); }
                      ScopedThreadName::unRegisterCallback(own);
                      return own->starts == 1 && own->ends == 1;
                  }),
                  0);
    }
}

TEST(ScopedThreadNameTest, OutlivesTheEndOfMain) {
    if (ThreadUtilities::underAddressSanitizer) {
        GTEST_SKIP() << "its leak check finds what the library gave up when the process was copied";
    }
    EXPECT_EQ(runInCopy([] {
                  const auto counter = std::make_shared<Counter>();
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

}  // namespace
