// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The system's records of all processes and their threads (SYSTEM_PROCESS_INFORMATION and
// SYSTEM_THREAD_INFORMATION of winternl.h, 64-bit layout), and how they are asked for. Nothing here
// needs the system's headers.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace ThreadUtilities::platform {

/// The system's query: information class, buffer, its length in bytes, where to put the length
/// that would be needed. Returns a status; negative ones are errors.
using SystemInformationQuery = std::function<std::int32_t(
    std::uint32_t informationClass, void* buffer, std::uint32_t length, std::uint32_t* needed)>;

/// The threads of a process in the order of its record; empty when the query fails, when there
/// is no memory for its answer, or when no record bears that process id.
std::vector<unsigned int> enumerateThreadsFromSystemInformation(
    unsigned int processId, const SystemInformationQuery& query);

/// The same from an answer that is there already. The records may stand at any address, and need
/// not be true: nothing outside the `size` bytes is read, and the walk ends.
std::vector<unsigned int> threadsFromProcessRecords(const void* records, std::size_t size,
                                                    unsigned int processId);

}  // namespace ThreadUtilities::platform
