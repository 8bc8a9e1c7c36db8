// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <stdexcept>

#include "commands.h"

namespace ThreadUtilities::companion {

int runCompare(const CompareOptions& /*options*/) {
    throw std::runtime_error("compare is not built yet");
}

}  // namespace ThreadUtilities::companion
