#pragma once

namespace ThreadUtilities {

/// What `getStackTrace` does for a thread that is not the calling one, after it has checked its
/// arguments and found no debugger.
unsigned long long captureOtherThread(unsigned int threadId, unsigned long long* frames,
                                      unsigned long long maxFrames, bool suspend);

}  // namespace ThreadUtilities
