#pragma once

// Most calls that open, read and close files are points at which a cancelled thread ends. The
// library's functions are not: an unwinding from their middle would leave locks held and meet
// functions that let nothing out.

#include <pthread.h>

namespace ThreadUtilities::platform {

/// The calling thread cannot be cancelled while this object lives. A few nanoseconds.
class CancellationOff {
 public:
    CancellationOff() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
    ~CancellationOff() { pthread_setcancelstate(before, nullptr); }

    CancellationOff(const CancellationOff&) = delete;
    CancellationOff& operator=(const CancellationOff&) = delete;

 private:
    int before = PTHREAD_CANCEL_ENABLE;
};

}  // namespace ThreadUtilities::platform
