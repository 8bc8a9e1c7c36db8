// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "unwind/compiled_rule.h"
#include "unwind/stack_words.h"
#include "unwind/walk_state.h"

namespace ThreadUtilities::cfi {

/// The ways that walks took outward from a return address, several frames at a time: which return
/// addresses followed, and how far above the stack pointer each lay. A walk that comes to the same
/// address compares the words at these places with what was found there before, and needs no rule
/// for as many frames as agree. Shared by all threads and their signal handlers.
///
/// *Why a step that agrees is the one that the rules make.* A path is made of steps by rules, in
/// modules that are never unloaded, so that the rule of an address stays what it was. The first
/// address is the same; hence its rule is. Where that counts from the stack pointer, the next
/// return address lies as far above it as before; where it counts from the frame pointer, if that
/// register is as far above the stack pointer as before, which is compared. If the word there is
/// the same too, so is the next rule, and so on: nothing else goes into these steps. The frame
/// pointer, where a step restored it, is read from its place anew.
///
/// *What may be read.* A path says how far above the stack pointer its places reach; none lies
/// below. It is not followed unless all of that is readable.
///
/// *Order.* A path is written once, by the one who has claimed its place, and never changes after
/// it has been published by its begin: who finds that, finds the rest. One whose writer is never
/// heard of again (an ended thread, another thread of a fork child) is a place that stays unused.
/// What finds its place taken has no path, and goes by rules.
class KnownPaths {
 public:
    /// Steps of a path.
    static constexpr std::size_t length = 8;

    /// What a path says of its steps, gathered one by one; see `Path`.
    struct Steps {
        std::uint64_t begin = 0;
        std::uint64_t stackPointer = 0;
        std::size_t count = 0;
        std::array<std::uint64_t, length> addresses{};
        std::array<std::uint16_t, length> places{};
        std::array<std::uint16_t, length> framePointers{};
        std::array<std::uint16_t, length> savedFramePointers{};
    };

    enum class Outcome {
        Followed,
        NotAsBefore,  ///< or too little is readable, or another path has the place of this one
        Unknown,
    };

    /// Makes the steps of the path from the position that are as before, and stores where each
    /// began. Precondition: the position is that of a step by a rule of a module that is never
    /// unloaded, and `next` has room for `length` entries.
    [[gnu::always_inline]] Outcome follow(std::uint64_t readableEnd, std::uint64_t stackShift,
                                          Position& at, unsigned long long*& next) const noexcept {
        const Path& path = pathOf(at.instructionPointer);
        const std::uint64_t begin = path.begin.load(std::memory_order_acquire);
        if (begin <= claimed) [[unlikely]] {  // nor is a damaged stack's 0 or 1 taken for a begin
            return begin == 0 ? Outcome::Unknown : Outcome::NotAsBefore;
        }
        if (begin != at.instructionPointer) [[unlikely]] {
            return Outcome::NotAsBefore;
        }
        const std::uint64_t stack = at.stackPointer + stackShift;
        const std::size_t made =
            path.reach <= readableEnd - at.stackPointer
                ? stepsAsBefore(path, stack, next)
                : followWithCare(path, readableEnd, stack, at.stackPointer, at.framePointer, next);
        if (made == 0) [[unlikely]] {
            return Outcome::NotAsBefore;
        }
        const std::uint64_t saved = path.savedFramePointers[made - 1];
        if (saved != noPlace) {
            at.framePointer = StackWords::load(stack + saved * wordSize);
        }
        at.instructionPointer = path.addresses[made - 1];
        at.stackPointer += (std::uint64_t{path.places[made - 1]} + 1) * wordSize;
        next += made;
        return Outcome::Followed;
    }

    /// Adds the step by `rule` from `from` to `to`. False, and nothing added, when it cannot be
    /// said.
    static bool add(Steps& steps, CompiledRule rule, const Position& from,
                    const Position& to) noexcept {
        const std::uint64_t place = (to.stackPointer - steps.stackPointer) / wordSize - 1;
        const std::uint64_t distance = from.framePointer - steps.stackPointer;
        const bool byFramePointer = rule.usesFramePointer();
        if (place >= noPlace || (byFramePointer && distance % wordSize != 0) ||
            steps.count == length) {
            return false;
        }
        const std::uint16_t savedBefore =
            steps.count != 0 ? steps.savedFramePointers[steps.count - 1] : noPlace;
        const std::uint64_t saved = place + 1 - rule.framePointerDistance() / wordSize;
        steps.addresses[steps.count] = to.instructionPointer;
        steps.places[steps.count] = static_cast<std::uint16_t>(place);
        steps.framePointers[steps.count] =
            byFramePointer ? static_cast<std::uint16_t>(distance / wordSize) : noPlace;
        steps.savedFramePointers[steps.count] =
            rule.savesFramePointer() ? static_cast<std::uint16_t>(saved) : savedBefore;
        ++steps.count;
        return true;
    }

    /// Keeps `steps` as the path from where they begin, if its place is free.
    void learn(const Steps& steps) noexcept {
        Path& path = pathOf(steps.begin);
        std::uint64_t nobody = 0;
        if (!path.begin.compare_exchange_strong(nobody, claimed, std::memory_order_relaxed)) {
            return;
        }
        // Behind the last step stands the same place with another address, which it cannot hold.
        const std::size_t count = steps.count;
        const std::uint16_t lastPlace = count != 0 ? steps.places[count - 1] : std::uint16_t{0};
        const std::uint64_t other = count != 0 ? ~steps.addresses[count - 1] : 0;
        path.reach = reachOf(steps);
        for (std::size_t index = 0; index < length; ++index) {
            const bool isStep = index < count;
            path.places[index] = isStep ? steps.places[index] : lastPlace;
            path.addresses[index] = isStep ? steps.addresses[index] : other;
            path.framePointers[index] = isStep ? steps.framePointers[index] : noPlace;
            path.savedFramePointers[index] = isStep ? steps.savedFramePointers[index] : noPlace;
        }
        path.begin.store(steps.begin, std::memory_order_release);
    }

 private:
    static constexpr std::uint64_t wordSize = 8;
    static constexpr unsigned indexBits = 12;

    static constexpr std::uint64_t spread = 0x9E3779B97F4A7C15;  // 2^64 divided by the golden ratio
    /// No word is so far away.
    static constexpr std::uint16_t noPlace = 0xFFFF;

    // A reach, in bytes from the stack pointer, is more than is ever readable where the frame
    // pointer is to be compared: once for the path, its place and distance are in it, or several
    // times.
    static constexpr std::uint64_t noReach = ~std::uint64_t{0};
    static constexpr std::uint64_t comparesFramePointer = std::uint64_t{1} << 63;
    static constexpr unsigned distanceShift = 48;
    static constexpr std::uint64_t severalDistances = 0x7FFF;
    static constexpr unsigned savedShift = 32;
    static constexpr std::uint64_t reachMask = 0xFFFFFFFF;
    static constexpr std::uint64_t several = comparesFramePointer | severalDistances
                                                                        << distanceShift;
    /// No return address.
    static constexpr std::uint64_t claimed = 1;

    struct alignas(64) Path {
        std::atomic<std::uint64_t> begin{0};  ///< the return address that it begins at
        std::uint64_t reach = 0;              ///< bytes from the stack pointer there
        // In words from that stack pointer.
        std::uint16_t places[length]{};  ///< of the return addresses
        std::uint64_t addresses[length]{};
        /// What the frame pointer is where the step counts from it; else `noPlace`.
        std::uint16_t framePointers[length]{};
        /// Where the frame pointer was saved last; `noPlace` where it has not been.
        std::uint16_t savedFramePointers[length]{};
    };
    static_assert(sizeof(Path) == 128);

    /// How many steps are as before, of a path of which nothing but the return addresses is to be
    /// compared. Stores where each began.
    [[gnu::always_inline]] static std::size_t stepsAsBefore(const Path& path, std::uint64_t stack,
                                                            unsigned long long* next) noexcept {
        std::uint64_t arrivedAt = path.begin.load(std::memory_order_relaxed);
        std::size_t made = 0;
#pragma GCC unroll 8
        for (; made != length; ++made) {
            const std::uint64_t word = StackWords::load(stack + path.places[made] * wordSize);
            if (word != path.addresses[made]) [[unlikely]] {
                break;
            }
            next[made] = arrivedAt;
            arrivedAt = word;
        }
        return made;
    }

    /// The same where the frame pointer is to be compared, or not all is readable. Takes nothing of
    /// the caller's by reference, who keeps the position in processor registers.
    [[gnu::noinline]] static std::size_t followWithCare(const Path& path, std::uint64_t readableEnd,
                                                        std::uint64_t stack,
                                                        std::uint64_t stackPointer,
                                                        std::uint64_t framePointer,
                                                        unsigned long long* next) noexcept {
        if (path.reach == noReach) {
            return 0;
        }
        const std::uint64_t readable = readableEnd - stackPointer;
        const std::uint64_t distanceOfAll = path.reach >> distanceShift & severalDistances;
        if ((path.reach & comparesFramePointer) != 0 && distanceOfAll != severalDistances &&
            (path.reach & reachMask) <= readable) {
            const std::uint64_t saved = path.reach >> savedShift & noPlace;
            const std::uint64_t compared =
                saved != noPlace ? StackWords::load(stack + saved * wordSize) : framePointer;
            if (compared == stackPointer + distanceOfAll * wordSize) {
                return stepsAsBefore(path, stack, next);
            }
        }
        std::uint64_t arrivedAt = path.begin.load(std::memory_order_relaxed);
        std::size_t made = 0;
        for (; made != length && path.places[made] < readable / wordSize; ++made) {
            const std::uint64_t distance = path.framePointers[made];
            if (distance != noPlace && framePointer != stackPointer + distance * wordSize) {
                break;
            }
            const std::uint64_t word = StackWords::load(stack + path.places[made] * wordSize);
            if (word != path.addresses[made]) {
                break;
            }
            const std::uint64_t saved = path.savedFramePointers[made];
            if (saved != noPlace) {
                framePointer = StackWords::load(stack + saved * wordSize);
            }
            next[made] = arrivedAt;
            arrivedAt = word;
        }
        return made;
    }

    /// The reach of a path of these steps.
    static std::uint64_t reachOf(const Steps& steps) noexcept {
        if (steps.count == 0) {
            return noReach;
        }
        std::uint64_t reach = (std::uint64_t{steps.places[steps.count - 1]} + 1) * wordSize;
        std::uint64_t compared = 0;
        for (std::size_t index = 0; index < steps.count; ++index) {
            const std::uint64_t distance = steps.framePointers[index];
            if (distance == noPlace) {
                continue;
            }
            const std::uint64_t saved =
                index != 0 ? steps.savedFramePointers[index - 1] : std::uint64_t{noPlace};
            const std::uint64_t one =
                distance < severalDistances
                    ? comparesFramePointer | distance << distanceShift | saved << savedShift
                    : several;
            compared = compared == 0 || compared == one ? one : several;
        }
        return reach | compared;
    }

    const Path& pathOf(std::uint64_t begin) const noexcept {
        return paths[begin * spread >> (64 - indexBits)];
    }
    Path& pathOf(std::uint64_t begin) noexcept { return paths[begin * spread >> (64 - indexBits)]; }

    Path paths[std::size_t{1} << indexBits];
};

}  // namespace ThreadUtilities::cfi
