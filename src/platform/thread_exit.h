// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Values that end with their thread.

#include <cstdint>

namespace ThreadUtilities::platform {

/// A function that the system calls on every ending thread that asked for it, after the thread's
/// own code and as late as the system can: code that runs earlier in the thread's end, such as
/// destructors of C++ `thread_local` objects wherever the system orders them first, still finds
/// what the function is going to release.
///
/// For objects of static storage duration that live as long as the library. Not called on threads
/// that the end of the process stops.
class ThreadExitCall {
 public:
    explicit ThreadExitCall(void (*function)() noexcept) noexcept;

    ThreadExitCall(const ThreadExitCall&) = delete;
    ThreadExitCall& operator=(const ThreadExitCall&) = delete;

    /// Asks for one call at the end of the calling thread. After that call it may be asked for
    /// again, since other code may still run on the thread. False when the system could not
    /// promise it, because the thread is too far in its end or resources are short: the function
    /// is not called then.
    bool request() noexcept;

 private:
    void (*function)() noexcept;
    /// What the backend knows this object by; negative when it could not get that.
    [[maybe_unused]] std::int64_t systemKey = -1;
};

}  // namespace ThreadUtilities::platform
