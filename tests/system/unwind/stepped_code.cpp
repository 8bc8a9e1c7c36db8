// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/stepped_code.h"

#include <alloca.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

// STEPPED_LEVEL is the namespace that belongs to the optimisation level of this compilation.
namespace stepped::STEPPED_LEVEL {
namespace {

[[gnu::noinline]] int use(void* memory) {
    asm volatile("" : : "r"(memory) : "memory");
    return 1;
}

int compareNumbers(const void* left, const void* right) {
    alignas(64) int numbers[2] = {*static_cast<const int*>(left), *static_cast<const int*>(right)};
    use(numbers);
    return numbers[0] - numbers[1];
}

}  // namespace

int realigned(int value) {
    alignas(64) char local[128];
    std::memset(local, value, sizeof(local));
    return use(local) + local[value % 128] + variableSize(value);
}

int variableSize(int value) {
    auto* const memory = static_cast<char*>(alloca(static_cast<std::size_t>(16 + value * 8)));
    alignas(32) long numbers[4] = {value, 2, 3, 4};
    memory[0] = static_cast<char>(value);
    return use(memory) + use(numbers) + memory[0] + static_cast<int>(numbers[0]);
}

int manyRegisters(int value) {
    int numbers[12];
    for (int index = 0; index < 12; ++index) {
        numbers[index] = value * index + use(&value);
    }
    int result = 0;
    for (int round = 0; round < 3; ++round) {
        for (int index = 0; index < 12; ++index) {
            result += numbers[index] * numbers[(index + round) % 12] + use(numbers);
        }
    }
    return result;
}

int recursion(int value) {
    return value <= 0 ? 0 : recursion(value - 1) + use(&value) + recursion(value - 3);
}

int containers(int value) {
    std::map<std::string, int> counts;
    std::vector<std::string> words;
    for (int index = 0; index < value; ++index) {
        words.push_back(std::to_string(index * 7919) + " and something that needs the heap");
        counts[words.back()] += index;
    }
    return static_cast<int>(counts.size() + words.front().size());
}

int callsThroughC(int value) {
    int numbers[] = {5, value, 9, 1, 7, 3, 8, 2};
    std::qsort(numbers, std::size(numbers), sizeof(numbers[0]), compareNumbers);
    char text[64];
    return std::snprintf(text, sizeof(text), "%d %s %.3f", numbers[0], "text", value / 3.0);
}

}  // namespace stepped::STEPPED_LEVEL
