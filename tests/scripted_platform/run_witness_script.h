// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <map>

#include "platform/run_witness.h"

namespace ThreadUtilities::scripted {

/// What a `platform::RunWitness` says of a thread; of all others it says nothing.
inline std::map<unsigned int, platform::ThreadRuns> threadRuns;
inline int openWitnesses = 0;

/// What `platform::separateOpenFiles` answers.
inline std::size_t separateFiles = 0;

}  // namespace ThreadUtilities::scripted
