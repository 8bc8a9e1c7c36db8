// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "linux/descriptor.h"
#include "linux/modules/process_map.h"

namespace ThreadUtilities::platform {

/// The path of a file that a process has mapped. `folder` is the process's below /proc. The
/// kernel's mark of a deleted file is told from a name that ends alike: the file is then still
/// there.
std::string pathOfMappedFile(const std::string& folder, const MappedRange& range);

/// The file that a task has mapped at `range`: the very file where the kernel lets us follow its
/// own link to it, deleted ones included; else the one of that name in the task's view of the file
/// system, unless its number tells that another file has taken its name. Not open where there is
/// none. Only a regular file is ever opened for reading: to open a pipe may wait, and to open a
/// device may do something.
Descriptor openMappedFile(pid_t task, const MappedRange& range);

/// Reads from a place in a file, and returns how many bytes were read from the front. No
/// cancellation point, and nothing is mapped: a file that is cut off meanwhile only ends sooner.
std::size_t readFileAt(const Descriptor& file, std::uint64_t offset,
                       std::span<std::uint8_t> out) noexcept;

}  // namespace ThreadUtilities::platform
