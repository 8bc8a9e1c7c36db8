// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stack/frame_walk.h"
#include <cstddef>
#include <cstdint>

#include "platform/frame_unwinder.h"
#include "stack/walk.h"

// Every step is guarded, not the walk as a whole: a fault then ends the walk with the count of the
// frames stored before it. A guard costs nanoseconds, a step of the system's unwinder far more.

namespace ThreadUtilities {
namespace {

/// Runs a callable that owns nothing; false when a fault ended it.
template <class Callable>
bool runsWithoutFault(Callable& callable) noexcept {
    return platform::runGuarded([](void* call) { (*static_cast<Callable*>(call))(); }, &callable);
}

struct GuardedWords {
    bool read(std::uint64_t address, std::uint64_t& word) const noexcept {
        std::uint64_t found = 0;
        auto load = [&] { found = *reinterpret_cast<const volatile std::uint64_t*>(address); };
        if (!runsWithoutFault(load)) {
            return false;
        }
        word = found;
        return true;
    }
};

class GuardedUnwinder {
 public:
    explicit GuardedUnwinder(const platform::Registers& start) noexcept : unwinder(start) {}

    std::uint64_t programCounter() const noexcept { return unwinder.programCounter(); }
    std::uint64_t stackPointer() const noexcept { return unwinder.stackPointer(); }

    StepResult step(const GuardedWords&) noexcept {
        StepResult result = StepResult::Unreadable;
        auto unwind = [&] {
            result = unwinder.unwindFrame() ? StepResult::Made : StepResult::NoUnwindData;
        };
        return runsWithoutFault(unwind) ? result : StepResult::Unreadable;
    }

    // The system's tables leave out none but leaf functions: a guess is right.
    bool returnTo(std::uint64_t address, std::uint64_t stackPointer) noexcept {
        unwinder.returnTo(address, stackPointer);
        return true;
    }
    bool isReturnedTo() const noexcept { return true; }

 private:
    platform::FrameUnwinder unwinder;
};

}  // namespace

// The system's unwinder is part of the system: nothing is left to bind.
void prepareFrameWalks() noexcept {}

bool searchForWalks() noexcept {
    return false;
}

WalkResult walkThread(const platform::ThreadContext& context, unsigned long long* frames,
                      std::size_t maxFrames) noexcept {
    GuardedUnwinder unwinder(context.registers);
    const GuardedWords words;
    return walkStack(unwinder, words, frames, maxFrames);
}

// Not inlined, because the trace begins at this function's return address.
[[gnu::noinline]] std::size_t walkCallingThread(unsigned long long* frames,
                                                std::size_t maxFrames) noexcept {
    const auto from = reinterpret_cast<std::uint64_t>(__builtin_return_address(0));
    return platform::traceCallingThread(from, frames, maxFrames);
}

}  // namespace ThreadUtilities
