// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// What the kernel counts of a thread's runs, asked again and again.

#include <ThreadUtilities/ProcessCapture.h>

#include <optional>
#include <string>
#include <utility>

namespace ThreadUtilities::companion {

/// Keeps the file open: to ask takes a microsecond then, instead of ten.
class RunFile {
 public:
    RunFile() = default;
    explicit RunFile(const std::string& schedstat);
    RunFile(RunFile&& other) noexcept : descriptor(std::exchange(other.descriptor, -1)) {}
    RunFile& operator=(RunFile&& other) noexcept {
        std::swap(descriptor, other.descriptor);
        return *this;
    }
    ~RunFile();

    /// Nothing where the thread has ended, or the file could not be opened.
    std::optional<ThreadRunCount> read() const;

 private:
    int descriptor = -1;
};

}  // namespace ThreadUtilities::companion
