#pragma once

namespace ThreadUtilities::scripted {

/// What `platform::isDebuggerAttached` answers; false at first.
void setDebuggerAttached(bool attached);

}  // namespace ThreadUtilities::scripted
