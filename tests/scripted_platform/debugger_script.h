// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

namespace ThreadUtilities::scripted {

inline bool debuggerAttached = false;

}  // namespace ThreadUtilities::scripted
