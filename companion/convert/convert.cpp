// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <stdexcept>

#include "commands.h"

namespace ThreadUtilities::companion {

int runConvert(const ConvertOptions& /*options*/) {
    throw std::runtime_error("convert is not built yet");
}

}  // namespace ThreadUtilities::companion
