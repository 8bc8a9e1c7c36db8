// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <dlfcn.h>
#include <gnu/lib-names.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <array>
#include <thread>
#include <vector>

#include "foundation/ascii.h"
#include "foundation/random.h"
#include "foundation/system_library.h"
#include "support/fork_child.h"
#include "support/sanitizers.h"

namespace vesko {
namespace {

using Numbers = std::array<int, 8>;

Numbers drawNumbers() {
    Numbers numbers;
    for (int& number : numbers) {
        number = randomIntHook(0, 999999999, false);
    }
    return numbers;
}

/// What a fork child draws.
Numbers numbersOfAChild() {
    static auto* const shared = static_cast<Numbers*>(
        mmap(nullptr, sizeof(Numbers), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    EXPECT_EQ(ThreadUtilities::runInForkChild([] { *shared = drawNumbers(); }), 0);
    return *shared;
}

TEST(RandomAcrossFork, TheChildDrawsAtOnceAndOtherNumbers) {
    if (ThreadUtilities::underAddressSanitizer) {
        GTEST_SKIP() << ThreadUtilities::copiesMayHang;
    }
    {
        std::vector<std::jthread> drawers;
        for (int count = 0; count < 3; ++count) {
            drawers.emplace_back([](const std::stop_token& stop) {
                while (!stop.stop_requested()) {
                    randomInt(0, 1000, true);
                }
            });
        }
        for (int forks = 0; forks < 30; ++forks) {
            numbersOfAChild();
        }
    }
    // Nobody draws between these three, so that only a seed of their own keeps them apart.
    const Numbers first = numbersOfAChild();
    const Numbers second = numbersOfAChild();
    const Numbers own = drawNumbers();
    EXPECT_NE(first, second);
    EXPECT_NE(first, own);
}

}  // namespace
}  // namespace vesko

namespace ThreadUtilities {
namespace {

TEST(SystemLibraryOnLinux, BindsWhatTheSystemHasAndRefusesTheRest) {
    const auto library = loadSystemLibrary(wideFromAscii(LIBC_SO));
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(platform::findEntryPoint(library, "gnu_get_libc_version"),
              dlsym(RTLD_DEFAULT, "gnu_get_libc_version"));
    EXPECT_EQ(platform::findEntryPoint(library, "noSuchFunction"), nullptr);
    platform::closeLibrary(library);

    EXPECT_EQ(loadSystemLibrary(wideFromAscii("libNoSuchLibrary.so")), nullptr);
}

}  // namespace
}  // namespace ThreadUtilities
