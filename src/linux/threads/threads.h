// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

namespace ThreadUtilities::platform {

/// Says that the calling thread's end will be announced, as that of every later thread whose start
/// is announced. Without it the thread list is never taken for whole; nor is it when there are
/// other threads already, because theirs will not be.
void relyOnNotices() noexcept;

}  // namespace ThreadUtilities::platform
