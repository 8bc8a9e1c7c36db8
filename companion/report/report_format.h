// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Reports in the library's own format, which all commands read.

#include <string>

#include "report/report.h"

namespace ThreadUtilities::companion {

std::string threadsFormat(const ThreadReport& report, const FrameTable& frames);
std::string profileFormat(const Profile& profile, const FrameTable& frames);

}  // namespace ThreadUtilities::companion
