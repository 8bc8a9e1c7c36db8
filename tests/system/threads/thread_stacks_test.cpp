#include "platform/linux/thread_stacks.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>

#include "child_process.h"
#include "parked_thread.h"

namespace ThreadUtilities::platform {
namespace {

unsigned int ownId() {
    return static_cast<unsigned int>(gettid());
}

bool isReadable(std::uint64_t address) {
    char byte;
    const iovec local{&byte, 1};
    const iovec remote{reinterpret_cast<void*>(address), 1};
    return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == 1;
}

// Whether the calling thread stands in the range that is known of it, and all of it can be read.
bool ownStackIsRight() {
    ReadableRange stack;
    if (!findThreadStack(ownId(), stack)) {
        return false;
    }
    const auto here = reinterpret_cast<std::uint64_t>(__builtin_frame_address(0));
    bool right = stack.begin <= here && here < stack.end;
    for (std::uint64_t page = stack.begin; page < stack.end; page += 4096) {
        right = right && isReadable(page);
    }
    return right;
}

TEST(ThreadStacks, AreTheThreadsOwn) {
    EXPECT_TRUE(ownStackIsRight());

    static std::array<char, 2000000> ownMemory;
    pthread_attr_t defaults;
    pthread_attr_t small;
    pthread_attr_t ownStack;
    for (pthread_attr_t* const attributes : {&defaults, &small, &ownStack}) {
        pthread_attr_init(attributes);
    }
    pthread_attr_setstacksize(&small, 1 << 20);
    pthread_attr_setstack(&ownStack, ownMemory.data() + 16, ownMemory.size() - 1000);
    for (const pthread_attr_t* const attributes : {&defaults, &small, &ownStack}) {
        pthread_t thread;
        std::pair<bool, unsigned int> result;
        ASSERT_EQ(pthread_create(
                      &thread, attributes,
                      [](void* out) -> void* {
                          *static_cast<std::pair<bool, unsigned int>*>(out) = {ownStackIsRight(),
                                                                               ownId()};
                          return nullptr;
                      },
                      &result),
                  0);
        pthread_join(thread, nullptr);
        EXPECT_TRUE(result.first);
        ReadableRange stack;
        EXPECT_FALSE(findThreadStack(result.second, stack)) << "it outlives its thread";
    }
    ReadableRange stack;
    EXPECT_FALSE(findThreadStack(0, stack));
    EXPECT_FALSE(findThreadStack(~0U, stack));
}

TEST(ThreadStacks, ACopyKnowsItsOnlyThread) {
    ParkedThread other;
    EXPECT_EQ(runInCopy([&] {
                  ReadableRange stack;
                  return ownStackIsRight() && !findThreadStack(other.id(), stack) ? 0 : 1;
              }),
              0);
    int result = -1;
    ParkedThread forking([&] { result = runInCopy([] { return ownStackIsRight() ? 0 : 1; }); });
    EXPECT_EQ(result, 0);
}

TEST(ThreadStacks, OfALivingThreadIsAlwaysFoundWhole) {
    ParkedThread stable;
    ReadableRange expected;
    ASSERT_TRUE(findThreadStack(stable.id(), expected));
    std::atomic<int> starting{2};
    std::vector<std::thread> starters;
    for (int starter = 0; starter < 2; ++starter) {
        starters.emplace_back([&] {
            for (int count = 0; count < 300; ++count) {
                ParkedThread one;
                ParkedThread two;
            }
            --starting;
        });
    }
    int wrong = 0;
    while (starting != 0) {
        ReadableRange stack;
        wrong += findThreadStack(stable.id(), stack) && stack.begin == expected.begin &&
                         stack.end == expected.end
                     ? 0
                     : 1;
        // Whatever is found of a thread that ends meanwhile is some thread's whole stack.
        if (findThreadStack(stable.id() + 10, stack)) {
            wrong += stack.begin < stack.end && stack.end - stack.begin <= 16 << 20 ? 0 : 1;
        }
    }
    for (std::thread& starter : starters) {
        starter.join();
    }
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace ThreadUtilities::platform
