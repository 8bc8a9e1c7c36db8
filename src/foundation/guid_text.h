// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <vesko/guid.h>

#include "platform/text.h"

namespace vesko {

/// The 36 characters of a GUID: 8-4-4-4-12 lower-case hexadecimal digits, no braces.
ThreadUtilities::WideString guidToWideString(const guid& value);

}  // namespace vesko
