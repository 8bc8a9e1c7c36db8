// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "linux/descriptor.h"
#include "linux/modules/process_map.h"

namespace ThreadUtilities::platform {

/// Reads the bytes of an image that a process has mapped: from the process's memory, which is what
/// really runs there; from the file where the system shows us the process's map but not its
/// memory. Failures give fewer bytes, or none.
class ImageReader {
 public:
    /// `task` is a thread of the process, `firstRange` the one at which the image begins.
    ImageReader(pid_t task, const MappedRange& firstRange);

    /// Bytes that lie at `imageOffset` in memory and at `fileOffset` in the file. Returns how many
    /// were read from the front.
    std::size_t read(std::uint64_t imageOffset, std::uint64_t fileOffset,
                     std::span<std::uint8_t> out) const noexcept;

    /// Bytes of the file that are not mapped.
    std::size_t readFile(std::uint64_t fileOffset, std::span<std::uint8_t> out) const;

 private:
    pid_t processTask;
    MappedRange first;
    Descriptor file;  ///< open where the memory cannot be read
};

}  // namespace ThreadUtilities::platform
