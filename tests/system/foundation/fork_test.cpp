#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <thread>
#include <vector>

#include "foundation/random.h"

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

/// What a fork child draws; all zero when it did not get that far within the watchdog's time.
Numbers numbersOfAChild() {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        alarm(30);
        const Numbers numbers = drawNumbers();
        const bool written = write(ends[1], numbers.data(), sizeof(numbers)) == sizeof(numbers);
        _exit(written ? 0 : 1);
    }
    close(ends[1]);
    Numbers numbers = {};
    EXPECT_EQ(read(ends[0], numbers.data(), sizeof(numbers)), ssize_t{sizeof(numbers)});
    close(ends[0]);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << "the child hung";
    return numbers;
}

TEST(RandomAcrossFork, TheChildDrawsAtOnceAndOtherNumbers) {
    drawNumbers();
    std::atomic<bool> stop = false;
    std::vector<std::thread> drawers;
    for (int count = 0; count < 3; ++count) {
        drawers.emplace_back([&] {
            while (!stop) {
                randomInt(0, 1000, true);
            }
        });
    }
    for (int forks = 0; forks < 30 && !HasFailure(); ++forks) {
        numbersOfAChild();
    }
    stop = true;
    for (std::thread& drawer : drawers) {
        drawer.join();
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
