// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Merging samples into a call tree.

#include <ThreadUtilities/Sampling.h>
#include <benchmark/benchmark.h>

#include <vector>

namespace {

using ThreadUtilities::Tree;
using Frames = std::vector<unsigned long long>;

/// A stack of `depth` frames, innermost first, whose innermost quarter differs by `variant`.
Frames stackOf(std::size_t depth, unsigned long long variant) {
    Frames frames;
    for (std::size_t level = depth; level > 0; --level) {
        const bool isShared = level <= depth - depth / 4;
        frames.push_back(0x400000 + 64 * level + (isShared ? 0 : variant << 32));
    }
    return frames;
}

void addTo(Tree& tree, unsigned long long thread, const Frames& frames) {
    tree.add(thread, Tree::FrameIterator(frames.cend()), Tree::FrameIterator(frames.cbegin()));
}

/// The usual case: the path is there already.
void AddKnownStack(benchmark::State& state) {
    static Tree tree;
    const auto depth = static_cast<std::size_t>(state.range(0));
    std::vector<Frames> stacks;
    for (unsigned long long variant = 0; variant < 8; ++variant) {
        stacks.push_back(stackOf(depth, variant));
    }
    const auto thread = static_cast<unsigned long long>(state.thread_index());
    std::size_t turn = 0;
    for (auto _ : state) {
        addTo(tree, thread, stacks[++turn % stacks.size()]);
    }
    state.counters["per frame"] = benchmark::Counter(
        static_cast<double>(depth),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(AddKnownStack)->Arg(15)->Arg(32)->Arg(100)->Arg(256);
BENCHMARK(AddKnownStack)->Arg(32)->Threads(2);

/// A path of nodes that are all new.
void AddNewStack(benchmark::State& state) {
    const Frames frames = stackOf(static_cast<std::size_t>(state.range(0)), 0);
    Tree tree;
    unsigned long long thread = 0;
    for (auto _ : state) {
        addTo(tree, ++thread % 4096, frames);
        if (thread % 4096 == 0) {
            state.PauseTiming();
            tree.children.clear();
            state.ResumeTiming();
        }
    }
}
BENCHMARK(AddNewStack)->Arg(32);

}  // namespace
