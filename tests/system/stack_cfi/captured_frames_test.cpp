// Frames of the library's own walk against those that the C library finds at the same spot.

#include <alloca.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

#include "stack/frame_walk.h"

namespace ThreadUtilities {
namespace {

constexpr std::size_t maxFrames = 400;

using Frames = std::vector<unsigned long long>;

/// Both walks' frames from the caller of this function outward.
struct Captured {
    Frames ours;
    Frames theirs;
};

[[gnu::noinline]] Captured capture() {
    Captured captured;
    captured.ours.resize(maxFrames);
    captured.ours.resize(walkCallingThread(captured.ours.data(), maxFrames));
    std::vector<void*> addresses(maxFrames);
    addresses.resize(backtrace(addresses.data(), maxFrames));
    for (void* const address : addresses) {
        captured.theirs.push_back(reinterpret_cast<unsigned long long>(address));
    }
    // The first entries are return addresses in this function.
    if (!captured.ours.empty() && !captured.theirs.empty()) {
        captured.ours.erase(captured.ours.begin());
        captured.theirs.erase(captured.theirs.begin());
    }
    return captured;
}

void expectSame(const Captured& captured, std::size_t minimum) {
    EXPECT_GE(captured.theirs.size(), minimum);
    EXPECT_EQ(captured.ours, captured.theirs);
}

int escape(int value) {
    asm volatile("" : "+r"(value));
    return value;
}

template <class Body>
[[gnu::noinline]] int descend(int depth, Body&& body) {
    if (depth == 0) {
        body();
        return 0;
    }
    return escape(descend(depth - 1, body) + 1);
}

TEST(CapturedFrames, AreThoseOfTheCLibraryInDeepRecursion) {
    Captured captured;
    EXPECT_EQ(descend(200, [&] { captured = capture(); }), 200);
    expectSame(captured, 200);
    // And with rules that have been cached.
    EXPECT_EQ(descend(200, [&] { captured = capture(); }), 200);
    expectSame(captured, 200);
}

}  // namespace
}  // namespace ThreadUtilities
