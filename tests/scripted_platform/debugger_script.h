#pragma once

namespace ThreadUtilities::scripted {

inline bool debuggerAttached = false;

}  // namespace ThreadUtilities::scripted
