// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "windows/guarded_call.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <random>

namespace ThreadUtilities::platform {
namespace {

void readWord(void* address) {
    [[maybe_unused]] const std::uint64_t word = *static_cast<volatile std::uint64_t*>(address);
}

void writeWord(void* address) {
    *static_cast<volatile std::uint64_t*>(address) = 1;
}

TEST(GuardedCall, EveryKindOfExceptionEndsTheCall) {
    const auto kernelAddress = reinterpret_cast<void*>(0xFFFFF78000000000);
    const auto notCanonical = reinterpret_cast<void*>(0x8765432112345678);
    const struct {
        const char* name;
        void (*function)(void*);
        void* argument;
    } faults[] = {
        {"null", readWord, nullptr},
        {"kernel address", readWord, kernelAddress},
        {"address that is not canonical", readWord, notCanonical},
        {"write to code", writeWord, reinterpret_cast<void*>(&readWord)},
        {"illegal instruction", [](void*) { asm volatile("ud2"); }, nullptr},
        {"division",
         [](void*) {
             asm volatile("xorl %%ecx, %%ecx; idivl %%ecx" ::: "rax", "rcx", "rdx");
         },
         nullptr},
        {"raised by hand", [](void*) { RaiseException(0xE0001234, 0, 0, nullptr); }, nullptr},
        {"below a function that promises not to throw",
         [](void* address) { [address]() noexcept { readWord(address); }(); }, nullptr},
    };
    for (const auto& fault : faults) {
        EXPECT_NE(threadUtilitiesGuardedCall(fault.function, fault.argument), 0) << fault.name;
    }
}

// What the caller keeps in registers that calls preserve must come out of a fault unchanged.
TEST(GuardedCall, PreservedRegistersSurviveManyFaults) {
    std::mt19937_64 random(1);
    std::uint64_t sum = 0;
    std::uint64_t expected = 0;
    double product = 1;
    for (int round = 1; round <= 10000; ++round) {
        auto* address = reinterpret_cast<void*>(random() | 0xFFFF800000000000);
        sum += static_cast<std::uint64_t>(round);
        product *= 1.0001;
        ASSERT_NE(threadUtilitiesGuardedCall(readWord, address), 0);
        expected += static_cast<std::uint64_t>(round);
    }
    EXPECT_EQ(sum, expected);
    EXPECT_NEAR(product, 2.718, 0.001);
}

}  // namespace
}  // namespace ThreadUtilities::platform
