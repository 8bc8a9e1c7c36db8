// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <link.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "linux/capture/handler/module_table.h"
#include "platform/code_modules.h"
#include "support/sanitizers.h"
#include "unwind/frame_walk.h"

// Frames of the library's own walk against those that the C library finds at the same spot.

namespace ThreadUtilities {
namespace {

using Frames = std::vector<unsigned long long>;
using Function = void (*)();

constexpr std::size_t maxFrames = 400;

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

[[gnu::noinline]] void descend(int depth, Function body) {
    depth == 0 ? body() : descend(depth - 1, body);
    asm volatile("");
}

/// Where the functions below leave what they captured.
Captured captured;

void expectCaptured(std::size_t fewest) {
    EXPECT_GE(captured.theirs.size(), fewest);
    EXPECT_EQ(captured.ours, captured.theirs);
    captured = {};
}

struct CapturesWhenDestroyed {
    ~CapturesWhenDestroyed() { captured = capture(); }
};

void whileAnExceptionUnwinds() {
    try {
        descend(5, [] {
            const CapturesWhenDestroyed destroyed;
            throw 1;
        });
    } catch (int) {
    }
}

/// A stack that the library knows nothing of.
void onACoroutineStack() {
    static ucontext_t outside;
    static ucontext_t inside;
    std::vector<char> stack(256 << 10);
    ASSERT_EQ(getcontext(&inside), 0);
    inside.uc_stack = {stack.data(), 0, stack.size()};
    inside.uc_link = &outside;
    makecontext(&inside, [] { descend(20, [] { captured = capture(); }); }, 0);
    ASSERT_EQ(swapcontext(&outside, &inside), 0);
    // The C library has the coroutine return to a place that no call lies before.
    captured.theirs.pop_back();
}

class CapturedFrames : public testing::Test {
 protected:
    void SetUp() override {
        if (underAddressSanitizer) {
            GTEST_SKIP() << "AddressSanitizer has a `backtrace` of its own";
        }
    }
};

TEST_F(CapturedFrames, AreThoseOfTheCLibrary) {
    for (const Function place : {whileAnExceptionUnwinds, onACoroutineStack}) {
        // The second time with rules that the first has left in the cache.
        for (int round = 0; round < 2; ++round) {
            place();
            expectCaptured(8);
        }
    }
}

/// A call through a null pointer: the interrupted function is none, and its caller is found by the
/// word that the call left on the stack.
TEST_F(CapturedFrames, AreFoundBelowANullFunction) {
    static sigjmp_buf back;
    signal(SIGSEGV, [](int) {
        captured = capture();
        siglongjmp(back, 1);
    });
    volatile Function none = nullptr;
    if (sigsetjmp(back, 1) == 0) {
        none();
    }
    signal(SIGSEGV, SIG_DFL);
    // A place in the handler, then the trampoline; the null address ends the walk.
    EXPECT_EQ(captured.ours.size(), 2u);
    EXPECT_TRUE(std::equal(captured.ours.begin(), captured.ours.end(), captured.theirs.begin()));
}

/// Captures below a function of the library; returns where that function was.
unsigned long long captureThrough(const std::string& path) {
    void* const library = dlopen(path.c_str(), RTLD_NOW);
    if (library == nullptr) {
        ADD_FAILURE() << dlerror();
        return 0;
    }
    const auto call = reinterpret_cast<int (*)(int (*)())>(dlsym(library, "callThrough"));
    const auto captureBelow = [] {
        captured = capture();
        return 1;
    };
    EXPECT_EQ(call(captureBelow), 2);
    const unsigned long long place = captured.ours.at(1);
    expectCaptured(8);
    dlclose(library);
    return place;
}

/// A host may hide what nobody but the loader needs: the frames are the same all the same.
TEST_F(CapturedFrames, AreFoundWhereTheFirstPageOfALibraryIsHidden) {
    for (const char* identity : {"sha1", "none"}) {
        const std::string path = std::string(REPLACED_LIBRARIES) + identity + "_100.so";
        void* const library = dlopen(path.c_str(), RTLD_NOW);
        ASSERT_NE(library, nullptr) << dlerror();
        static void* firstPage = nullptr;
        Dl_info place;
        void* const function = dlsym(library, "callThrough");
        ASSERT_NE(dladdr(function, &place), 0);
        firstPage = place.dli_fbase;
        const auto countFrames = []() -> int {
            unsigned long long frames[64];
            std::size_t counts[2];
            for (std::size_t& count : counts) {
                count = walkCallingThread(frames, std::size(frames));
                mprotect(firstPage, 1, PROT_NONE);
            }
            mprotect(firstPage, 1, PROT_READ);
            return counts[0] == counts[1] && counts[0] > 3 ? 1 : 0;
        };
        EXPECT_EQ(reinterpret_cast<int (*)(int (*)())>(function)(countFrames), 2) << identity;
        dlclose(library);
    }
}

/// Rules in the cache never outlive their module: two libraries that take each other's place.
class ReplacedLibrary : public CapturedFrames, public testing::WithParamInterface<const char*> {};

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

// A library without a build-id cannot be told from another one that looks like it to the loader;
// one with an id set by hand is told from the next one of that id by its tables.
INSTANTIATE_TEST_SUITE_P(Identified, ReplacedLibrary,
                         testing::Values("sha1", "none", "0x0123456789abcdef0123"),
                         [](const auto& tested) { return std::string(tested.param); });

}  // namespace
}  // namespace ThreadUtilities

namespace ThreadUtilities::platform {
namespace {

/// An address in the code of every loaded module.
std::vector<std::uint64_t> codeOfAllModules() {
    std::vector<std::uint64_t> addresses;
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* found) {
            for (unsigned index = 0; index < info->dlpi_phnum; ++index) {
                const ElfW(Phdr)& header = info->dlpi_phdr[index];
                if (header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0) {
                    static_cast<std::vector<std::uint64_t>*>(found)->push_back(
                        info->dlpi_addr + header.p_vaddr + header.p_memsz / 2);
                    break;
                }
            }
            return 0;
        },
        &addresses);
    return addresses;
}

/// Older C libraries have no lookup for signal handlers; the own list then takes its place.
TEST(CodeModules, AreTheSameHoweverTheyAreFound) {
    prepareModuleLookup();
    refreshModuleTable();
    const auto addresses = codeOfAllModules();
    ASSERT_GT(addresses.size(), 4u);
    std::set<std::uint64_t> identities;
    for (const std::uint64_t address : addresses) {
        CodeModule module;
        CodeModule found;
        ASSERT_TRUE(findCodeModule(address, module));
        ASSERT_TRUE(findInModuleTable(address, found));
        EXPECT_EQ(found.begin, module.begin);
        EXPECT_EQ(found.unwindHeader, module.unwindHeader);
        if (!module.isPermanent && module.identity != 0) {
            EXPECT_TRUE(identities.insert(module.identity).second);
        }
    }
    CodeModule none;
    EXPECT_FALSE(findInModuleTable(0x1000, none));
}

bool isPermanentAt(const void* address) {
    CodeModule module;
    return findCodeModule(reinterpret_cast<std::uint64_t>(address), module) && module.isPermanent;
}

/// What came with the start stays however often it is opened and closed; what `dlopen` brought does
/// not.
TEST(CodeModules, ThoseOfTheStartAloneArePermanent) {
    for (const char* name : {"libstdc++.so.6", "libm.so.6", "libgcc_s.so.1"}) {
        void* const opened = dlopen(name, RTLD_NOW);
        ASSERT_NE(opened, nullptr) << dlerror();
        dlclose(opened);
        dlclose(dlopen(name, RTLD_NOW));
        EXPECT_NE(dlopen(name, RTLD_NOW | RTLD_NOLOAD), nullptr) << name;
    }
    EXPECT_TRUE(isPermanentAt(reinterpret_cast<void*>(&dlopen)));
    EXPECT_TRUE(isPermanentAt(dlsym(RTLD_DEFAULT, "_ZTISt9exception")));
    EXPECT_TRUE(isPermanentAt(dlsym(RTLD_DEFAULT, "cos")));
    void* const plugin = dlopen(REPLACED_LIBRARIES "sha1_100.so", RTLD_NOW);
    ASSERT_NE(plugin, nullptr) << dlerror();
    EXPECT_FALSE(isPermanentAt(dlsym(plugin, "callThrough")));
    dlclose(plugin);
}

}  // namespace
}  // namespace ThreadUtilities::platform
