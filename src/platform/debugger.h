#pragma once

namespace ThreadUtilities::platform {

/// Whether a debugger is attached to this process now. False when that cannot be told. Allocates
/// nothing and takes no lock.
bool isDebuggerAttached() noexcept;

}  // namespace ThreadUtilities::platform
