// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Stopping a thread of another process for a moment: ptrace(2) with PTRACE_SEIZE.

#include <sys/user.h>

#include <chrono>

#include "platform/thread_context.h"

namespace ThreadUtilities::process {

using SteadyTime = std::chrono::steady_clock::time_point;

/// A thread that the calling thread has seized, with no option set. All calls by the thread that
/// made the object.
///
/// A seizure can be given up by its owner only while the seized thread stands still, or by the
/// owner's end: then the kernel takes back what was asked for, and lets the thread run on,
/// wherever it was. That is so at any moment, because nothing of the seizure is kept anywhere else:
/// no breakpoint is in the code, no signal is on its way, and a signal whose delivery was held up
/// stays with the thread, since its stop is never consumed by a wait.
class SeizedThread {
 public:
    explicit SeizedThread(unsigned int threadId) noexcept;

    /// 0, or the kernel's error number, positive.
    int error() const noexcept { return seizeError; }

    /// Asks it to stop and waits until it does, which may take as long as a system call that
    /// nothing ends; its registers then. False when it ends.
    bool stop(platform::Registers& registers) noexcept;

    /// Lets a stopped thread go, with the signal at whose delivery it stopped, if any. False when
    /// that did not work, or it does not stand still: then the calling thread must end.
    bool letGo() noexcept;

    /// When it was asked to stop, or was last seen not to have stopped yet.
    SteadyTime stopBegan() const noexcept { return began; }

 private:
    bool readRegisters() noexcept;
    bool hasEnded() const noexcept;
    void resumeCutWait() const noexcept;
    int signalBeingDelivered() const noexcept;

    unsigned int id;
    int seizeError;
    bool standsStill = false;
    SteadyTime began;
    user_regs_struct saved{};
};

}  // namespace ThreadUtilities::process
