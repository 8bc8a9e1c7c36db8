#pragma once

// Time and processors as the sampling workers see them.

#include <chrono>

namespace ThreadUtilities::platform {

std::chrono::steady_clock::time_point steadyNow() noexcept;

void sleepFor(std::chrono::milliseconds duration);

/// Lets other threads run when there was nothing to do.
void yieldProcessor() noexcept;

/// Hardware threads of the machine; 0 when unknown.
unsigned int hardwareThreads() noexcept;

}  // namespace ThreadUtilities::platform
