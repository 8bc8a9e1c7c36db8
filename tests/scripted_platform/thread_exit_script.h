#pragma once

namespace ThreadUtilities::scripted {

/// Whether requests for a call at thread exit are refused from here on.
void refuseThreadExitCalls(bool refuse);

/// Makes the calls that the calling thread has asked for, as its end would; returns their number.
int runThreadExitCalls();

}  // namespace ThreadUtilities::scripted
