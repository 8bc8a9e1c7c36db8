// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// A file that is there as a whole, or not at all.

#include <filesystem>
#include <fstream>
#include <ostream>

namespace ThreadUtilities::companion {

/// Written beside its place and moved there at the end; a file that stood there stays until then.
/// What cannot be replaced (a pipe, a device, the standard output for "-") is written directly.
class OutputFile {
 public:
    /// Throws std::runtime_error where nothing can be written.
    explicit OutputFile(std::filesystem::path target);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    /// Removes what was not committed.
    ~OutputFile();

    std::ostream& stream();
    /// Throws std::runtime_error if not all of it could be written.
    void commit();

 private:
    std::filesystem::path path;
    /// Empty where the target is written directly.
    std::filesystem::path beside;
    std::ofstream file;
    bool isStandardOutput = false;
};

/// Throws std::runtime_error where the output would take the input's place.
void keepInput(const std::filesystem::path& input, const std::filesystem::path& output);

}  // namespace ThreadUtilities::companion
