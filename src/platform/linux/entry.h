#pragma once

#include "platform/linux/own_name.h"

namespace ThreadUtilities::platform {

/// What is done for a thread before its own code runs. `inherited` is its creator's name in the
/// kernel at its creation.
void beginThread(const KernelName& inherited) noexcept;

/// Looks the C library's own functions up, so that later starts of threads find them.
void prepareStartHooks() noexcept;

/// False as long as the library has not been loaded to its end; threads are then not announced.
bool isLoaded() noexcept;

}  // namespace ThreadUtilities::platform
