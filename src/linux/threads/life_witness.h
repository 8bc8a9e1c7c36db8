// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <pthread.h>

namespace ThreadUtilities::platform {

/// Shows whether a thread has ended, to any thread and without a system call.
///
/// A robust mutex that its thread holds for as long as it lives: the kernel marks it as left behind
/// when the thread ends, in whatever way (return, `pthread_exit`, the bare system call), after the
/// thread's last instruction and before anybody can join it. Because nobody ever gives the mutex
/// back, the mark means the end and nothing else.
///
/// The memory belongs to the thread's list of robust mutexes until the end shows; it may not be
/// freed before.
class LifeWitness {
 public:
    /// On the thread concerned, once; in a fork child once more, because the child's list is
    /// empty. False where the system has no robust mutexes: the end then never shows.
    bool begin() noexcept;

    bool sawTheEnd() const noexcept;

 private:
    pthread_mutex_t heldForLife = PTHREAD_MUTEX_INITIALIZER;
};

}  // namespace ThreadUtilities::platform
