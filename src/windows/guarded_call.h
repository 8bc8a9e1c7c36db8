// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

namespace ThreadUtilities::platform {

/// Calls `function(argument)`. Other than 0 when a structured exception (an access fault, say)
/// ended the call; every exception is accepted, and none goes further.
///
/// Destructors of the frames between the fault and this call do not run, so `function` owns
/// nothing. What it leaves behind for its caller is written through `argument`. Costs a few
/// nanoseconds when nothing happens.
extern "C" int threadUtilitiesGuardedCall(void (*function)(void*), void* argument) noexcept;

/// The same with any callable that owns nothing. False when a fault ended it.
template <class Callable>
bool runGuarded(Callable& callable) noexcept {
    return threadUtilitiesGuardedCall([](void* call) { (*static_cast<Callable*>(call))(); },
                                      &callable) == 0;
}

}  // namespace ThreadUtilities::platform
