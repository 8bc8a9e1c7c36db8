// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <stdexcept>

#include "commands.h"

namespace ThreadUtilities::companion {

int runRead(const ReadOptions& /*options*/) {
    throw std::runtime_error("read is not built yet");
}

}  // namespace ThreadUtilities::companion
