// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

namespace ThreadUtilities::scripted {

/// Whether requests for a call at thread exit are refused from here on.
void refuseThreadExitCalls(bool refuse);

}  // namespace ThreadUtilities::scripted
