// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "foundation/random.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <random>
#include <vector>

#include "foundation/never_destroyed.h"
#include "platform/fork_child.h"

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

// Made by the first to draw; room for it before the static objects of a host that may draw.
struct Shared {
    std::mutex creation;
    std::optional<Generator> generator;
};
[[gnu::init_priority(101)]] ThreadUtilities::NeverDestroyed<Shared> shared;

// Nothing of the old generator is touched: its mutex may be held by a thread that the child does
// not have, and going on from its state would give the child the numbers of its parent.
ThreadUtilities::platform::RestartInForkChild seedAfresh([] { new (&shared.value) Shared; });

Generator& sharedGenerator() {
    const std::lock_guard lock(shared.value.creation);
    return shared.value.generator ? *shared.value.generator : shared.value.generator.emplace();
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
    Generator& generator = sharedGenerator();
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
