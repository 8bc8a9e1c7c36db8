// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/thread_stacks.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>

#include "support/fork_child.h"
#include "support/parked_thread.h"

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

TEST(ThreadStacks, AreTheThreadsOwnAndEndWithThem) {
    EXPECT_TRUE(ownStackIsRight());
    static std::array<char, 2000000> ownMemory;
    pthread_attr_t defaults;
    pthread_attr_t ownStack;
    for (pthread_attr_t* const attributes : {&defaults, &ownStack}) {
        pthread_attr_init(attributes);
    }
    pthread_attr_setstack(&ownStack, ownMemory.data() + 16, ownMemory.size() - 1000);
    static unsigned int id;
    for (const pthread_attr_t* const attributes : {&defaults, &ownStack}) {
        pthread_t thread;
        const auto body = [](void*) -> void* {
            id = ownId();
            EXPECT_TRUE(ownStackIsRight());
            return nullptr;
        };
        ASSERT_EQ(pthread_create(&thread, attributes, body, nullptr), 0);
        pthread_join(thread, nullptr);
        ReadableRange stack;
        EXPECT_FALSE(findThreadStack(id, stack)) << "it outlives its thread";
    }
    ReadableRange stack;
    EXPECT_FALSE(findThreadStack(0, stack));
}

}  // namespace
}  // namespace ThreadUtilities::platform
