// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/run_witness.h"

#include "scripted_platform/run_witness_script.h"

namespace ThreadUtilities::platform {

RunWitness::RunWitness(unsigned int threadId) noexcept : threadId_(threadId), file_(0) {
    ++scripted::openWitnesses;
}

RunWitness::~RunWitness() {
    --scripted::openWitnesses;
}

std::optional<ThreadRuns> RunWitness::read() const noexcept {
    const auto found = scripted::threadRuns.find(threadId_);
    return found == scripted::threadRuns.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::uint64_t> RunWitness::readHint() const noexcept {
    const auto runs = read();
    return runs ? std::optional(runs->time) : std::nullopt;
}

void RunWitness::keepFilesForVisits() noexcept {}

std::size_t separateOpenFiles() noexcept {
    return scripted::separateFiles;
}

}  // namespace ThreadUtilities::platform
