// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Putting the handler in place, and calling it.

namespace ThreadUtilities::platform {

/// The signal that captures use.
int captureSignal() noexcept;

/// Makes sure that the handler is installed, or that it is behind the handler of another copy of
/// this library which passes its signals on. False when this cannot be done.
bool ensureCaptureHandler() noexcept;

enum class SendResult {
    Sent,
    NoSuchThread,
    QueueFull,  ///< the host has used up the limit of queued signals; it may have room soon
    Refused,    ///< by a rule of the host's, or by a queue that stays full
};

/// Calls the handler on thread `threadId` of this process.
SendResult sendCaptureSignal(unsigned int threadId) noexcept;

}  // namespace ThreadUtilities::platform
