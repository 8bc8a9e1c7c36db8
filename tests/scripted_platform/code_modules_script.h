// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <vector>

#include "platform/code_modules.h"

namespace ThreadUtilities::scripted {

/// All bytes of these can be read.
inline std::vector<platform::CodeModule> codeModules;

}  // namespace ThreadUtilities::scripted
