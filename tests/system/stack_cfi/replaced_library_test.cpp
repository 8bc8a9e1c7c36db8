// Rules in the cache never outlive their module: two libraries that take each other's place.

#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stack/frame_walk.h"

namespace ThreadUtilities {
namespace {

struct Captured {
    std::vector<unsigned long long> ours;
    std::vector<unsigned long long> theirs;
};

Captured captured;

int captureBoth() {
    constexpr int maxFrames = 64;
    captured.ours.resize(maxFrames);
    captured.ours.resize(walkCallingThread(captured.ours.data(), maxFrames));
    void* addresses[maxFrames];
    const int count = backtrace(addresses, maxFrames);
    captured.theirs.clear();
    for (int index = 0; index < count; ++index) {
        captured.theirs.push_back(reinterpret_cast<unsigned long long>(addresses[index]));
    }
    captured.theirs.front() = captured.ours.front();  // two places in this function
    return 1;
}

/// Captures below a function of the library; returns where that function was.
unsigned long long captureThrough(const std::string& path) {
    void* const library = dlopen(path.c_str(), RTLD_NOW);
    if (library == nullptr) {
        ADD_FAILURE() << dlerror();
        return 0;
    }
    const auto call = reinterpret_cast<int (*)(int (*)())>(dlsym(library, "callThrough"));
    EXPECT_EQ(call(captureBoth), 2);
    EXPECT_EQ(captured.ours, captured.theirs);
    dlclose(library);
    return captured.ours.at(1);
}

class ReplacedLibrary : public testing::TestWithParam<const char*> {};

TEST_P(ReplacedLibrary, IsWalkedByItsOwnTables) {
    const std::string prefix = std::string(REPLACED_LIBRARIES) + GetParam();
    int samePlace = 0;
    for (int round = 0; round < 10; ++round) {
        const auto first = captureThrough(prefix + "_100.so");
        const auto second = captureThrough(prefix + "_300.so");
        samePlace += first == second ? 1 : 0;
    }
    EXPECT_GT(samePlace, 0) << "the loader never put one library where the other had been";
}

// A library without a build-id cannot be told from another one that looks like it to the loader.
INSTANTIATE_TEST_SUITE_P(Identified, ReplacedLibrary, testing::Values("sha1", "none"),
                         [](const auto& tested) { return std::string(tested.param); });

}  // namespace
}  // namespace ThreadUtilities
