// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include "platform/text.h"

namespace ThreadUtilities {

/// The text of one frame in UTF-16; see `getFrameDetails`.
WideString describeFrame(unsigned int processId, unsigned long long address);

}  // namespace ThreadUtilities
