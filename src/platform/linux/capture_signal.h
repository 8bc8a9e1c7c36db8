#pragma once

// Putting the handler in place, and calling it.

namespace ThreadUtilities::platform {

/// Makes sure that the handler is installed. It goes in front of whatever the host installed and
/// passes foreign signals on to that; false when this cannot be done.
bool ensureCaptureHandler() noexcept;

enum class SendResult { Sent, NoSuchThread, Refused };

/// Calls the handler on thread `threadId` of this process.
SendResult sendCaptureSignal(unsigned int threadId) noexcept;

}  // namespace ThreadUtilities::platform
