// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>

namespace ThreadUtilities::platform {

/// Asks the system's information query, which is bound on first use: writes up to `length` bytes
/// of class `informationClass` to `buffer` and the bytes that it takes to `reportedLength`. Returns
/// the query's status, or 0x80004005 where the system has no such query.
std::int32_t querySystemInformation(std::uint32_t informationClass, void* buffer,
                                    std::uint32_t length, std::uint32_t* reportedLength);

}  // namespace ThreadUtilities::platform
