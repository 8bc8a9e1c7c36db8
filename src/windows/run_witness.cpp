// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/run_witness.h"

namespace ThreadUtilities::platform {

// The times that the system keeps of a thread are counted in ticks of the system timer; a thread
// can run between two of them.
RunWitness::RunWitness(unsigned int threadId, bool) noexcept : id(threadId), runsFile(-1) {}
RunWitness::~RunWitness() = default;

std::optional<ThreadRuns> RunWitness::read() const noexcept {
    return std::nullopt;
}

std::optional<std::uint64_t> RunWitness::readHint() const noexcept {
    return std::nullopt;
}

std::size_t separateOpenFiles() noexcept {
    return 0;
}

}  // namespace ThreadUtilities::platform
