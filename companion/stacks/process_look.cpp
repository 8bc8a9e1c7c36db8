// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stacks/process_look.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "process/descriptors.h"

namespace ThreadUtilities::companion {
namespace {

constexpr std::size_t mostFrames = 256;
/// Behind these no function of the C library says what is waited for any more.
constexpr std::size_t framesOfWait = 8;

bool isCLibrary(std::string_view module) {
    return module.starts_with("libc.so") || module.starts_with("libc-") ||
           module.starts_with("libpthread") || module.starts_with("ld-linux");
}

std::vector<CalledFunction> innermostFunctions(const std::vector<FrameId>& stack,
                                               const FrameTable& frames, const Symbols& symbols) {
    std::vector<CalledFunction> functions;
    for (std::size_t index = 0; index < std::min(stack.size(), framesOfWait); ++index) {
        const bool isOfCLibrary = isCLibrary(frames.moduleOf(stack[index]).fileName);
        for (const SourcePlace& place : symbols.name(stack[index]).places) {
            functions.push_back({place.function, isOfCLibrary});
        }
    }
    return functions;
}

/// Whether the thread has been in one and the same wait ever since the look. Its run count says so:
/// without running it can neither have left the wait nor begun another.
bool isStillAtRest(const SeenThread& seen, const Target& target) {
    if (seen.look.result != LookResult::Blocked) {
        return false;
    }
    std::vector<unsigned long long> frames;
    const ThreadLook again = target.looks().lookWithoutStop(seen.thread.id, frames, 1);
    return again.result == LookResult::Blocked && again.runs == seen.look.runs;
}

void dropHolder(Wait& wait) {
    wait.holder = 0;
    wait.holderKind = HolderKind::none;
    wait.holderWords.clear();
}

bool isSameThread(const TargetThread* left, const TargetThread* right) {
    return left != nullptr && right != nullptr && left->startTime == right->startTime;
}

}  // namespace

std::vector<SeenThread> lookAtAll(const Target& target, ProcessFrames& frames, Depth depth) {
    std::vector<SeenThread> all;
    std::vector<unsigned long long> addresses;
    for (const TargetThread& thread : target.threads()) {
        SeenThread seen;
        seen.thread = thread;
        seen.look = target.looks().look(thread.id, addresses, mostFrames);
        if (seen.look.result == LookResult::NoSuchThread || thread.hasEnded) {
            continue;
        }
        seen.frames = depth == Depth::callers ? frames.callers(seen.look, addresses)
                                              : frames.all(seen.look, addresses);
        all.push_back(std::move(seen));
    }
    return all;
}

/// A cycle is found only where there is one. Each waiter was at rest from its look, before the
/// first reading of any lock here, until after the second one. Because every holder in a cycle is
/// also a waiter of it, no holder has run in that time, therefore none has let go of its lock.
void addWaits(std::vector<SeenThread>& threads, Target& target, const FrameTable& frames,
              const Symbols& symbols) {
    Descriptors descriptors(target.procFolder());
    const WaitSources sources{target, descriptors};
    std::vector<std::vector<CalledFunction>> functions;
    for (SeenThread& seen : threads) {
        functions.push_back(innermostFunctions(seen.frames, frames, symbols));
        seen.wait = waitOf(sources, seen.thread.id, seen.look, functions.back());
    }
    std::unordered_map<unsigned int, TargetThread> before;
    for (const TargetThread& thread : target.threads()) {
        before.emplace(thread.id, thread);
    }
    target.listThreads();
    for (std::size_t index = 0; index < threads.size(); ++index) {
        SeenThread& seen = threads[index];
        const Wait again = waitOf(sources, seen.thread.id, seen.look, functions[index]);
        const auto holder = before.find(seen.wait.holder);
        const bool holderLives = holder != before.end() &&
                                 isSameThread(&holder->second, target.thread(seen.wait.holder));
        if (!seen.wait.isSame(again) ||
            (seen.wait.holderKind == HolderKind::thread && !holderLives)) {
            dropHolder(seen.wait);
        }
    }
    for (SeenThread& seen : threads) {
        seen.isAtRest = isStillAtRest(seen, target);
        if (!seen.isAtRest) {
            dropHolder(seen.wait);
        }
    }
}

std::vector<Cycle> findCycles(const std::vector<SeenThread>& threads) {
    std::unordered_map<unsigned int, std::size_t> indexOf;
    for (std::size_t index = 0; index < threads.size(); ++index) {
        indexOf.emplace(threads[index].thread.id, index);
    }
    constexpr std::size_t nobody = SIZE_MAX;
    const auto holderOf = [&](std::size_t index) {
        const Wait& wait = threads[index].wait;
        const auto holder = indexOf.find(wait.holder);
        return wait.holderKind == HolderKind::thread && holder != indexOf.end() ? holder->second
                                                                                : nobody;
    };
    // Everybody waits for one thread at most: from each thread there is one way to go. A way that
    // comes back to its own steps has run into a cycle; one that meets an earlier way has not.
    std::vector<Cycle> cycles;
    std::vector<std::size_t> wayOf(threads.size(), nobody);
    for (std::size_t start = 0; start < threads.size(); ++start) {
        std::size_t at = start;
        while (at != nobody && wayOf[at] == nobody) {
            wayOf[at] = start;
            at = holderOf(at);
        }
        if (at == nobody || wayOf[at] != start) {
            continue;
        }
        Cycle cycle{at};
        for (std::size_t next = holderOf(at); next != at; next = holderOf(next)) {
            cycle.push_back(next);
        }
        std::rotate(cycle.begin(), std::min_element(cycle.begin(), cycle.end()), cycle.end());
        cycles.push_back(std::move(cycle));
    }
    return cycles;
}

ThreadReport reportOf(const std::vector<SeenThread>& threads) {
    ThreadReport report;
    for (const SeenThread& seen : threads) {
        report.threads.push_back({std::to_string(seen.thread.id), seen.thread.name, seen.frames});
    }
    return report;
}

}  // namespace ThreadUtilities::companion
