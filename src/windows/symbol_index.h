// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <optional>

#include "platform/modules.h"

namespace ThreadUtilities::platform {

/// The GUID under which symbol servers file the debug information of a module file, as the index
/// service of the system's debugging-help library tells it. None when the service is missing or
/// does not know. Any thread; one question at a time.
std::optional<DebugGuid> symbolIndexGuid(const wchar_t* path);

}  // namespace ThreadUtilities::platform
