// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include "platform/run_witness.h"

namespace ThreadUtilities::platform {

/// The numbers of the files that a witness keeps open for visits; negative where there is none.
/// They go on speaking of the thread that they were opened for: once it has ended, they cannot be
/// read.
class FilesForVisits {
 public:
    explicit FilesForVisits(const RunWitness* witness)
        : status(witness != nullptr ? witness->statusFile : -1),
          call(witness != nullptr ? witness->callFile : -1) {}

    const int status;
    const int call;
};

}  // namespace ThreadUtilities::platform
