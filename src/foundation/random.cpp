// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "foundation/random.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <random>
#include <vector>

#include "platform/process_copy.h"

namespace vesko {
namespace {

// The source takes 5 KB and the seeds 2.5 KB; they are on the heap, because the first thread to
// draw may have a small stack.
std::mt19937 seededEngine() {
    const auto source = std::make_unique<std::random_device>();
    std::vector<std::random_device::result_type> seeds(std::mt19937::state_size);
    std::generate(seeds.begin(), seeds.end(), std::ref(*source));
    std::seed_seq sequence(seeds.begin(), seeds.end());
    return std::mt19937(sequence);
}

// The generator lives in static storage and is never destroyed, because threads may still draw
// while the process exits and runs its destructors. It is made by hand rather than as a
// function-local static, because the guard of one that another thread is just making stays closed
// forever in a copy of the process.
alignas(Generator) std::byte generatorStorage[sizeof(Generator)];
constinit std::atomic<Generator*> sharedGenerator = nullptr;
std::mutex creationMutex;

// Nothing of the old generator is touched: its mutex may be held by a thread that the copy does
// not have, and going on from its state would give the copy the numbers of the original.
ThreadUtilities::platform::RestartInCopy seedAfresh([] {
    new (&creationMutex) std::mutex;
    sharedGenerator.store(nullptr, std::memory_order_relaxed);
});

Generator& getSharedGenerator() {
    if (Generator* const made = sharedGenerator.load(std::memory_order_acquire)) {
        return *made;
    }
    const std::lock_guard lock(creationMutex);
    if (sharedGenerator.load(std::memory_order_relaxed) == nullptr) {
        sharedGenerator.store(new (generatorStorage) Generator, std::memory_order_release);
    }
    return *sharedGenerator.load(std::memory_order_relaxed);
}

int negated(int value) {
    return static_cast<int>(0U - static_cast<unsigned int>(value));
}

}  // namespace

Generator::Generator() : engine(seededEngine()) {}

int Generator::draw(int lo, int hi) {
    const std::lock_guard lock(mutex);
    return std::uniform_int_distribution<int>(lo, hi)(engine);
}

int randomInt(int lo, int hi, bool randomSign) {
    Generator& generator = getSharedGenerator();
    if (lo == hi) {
        return hi;
    }
    const int value = generator.draw(lo, hi);
    if (!randomSign) {
        return value;
    }
    return randomIntHook(1, 2, false) == 1 ? value : negated(value);
}

}  // namespace vesko
