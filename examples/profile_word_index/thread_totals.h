// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// One thread of a sampling report.
struct ThreadTotal {
    std::string id;
    std::string name;  ///< empty when it had none, or had ended by the time of the report
    std::size_t samples = 0;
};

/// The threads of a report in its order, from its lines "Thread <id> [<samples>]: <name>".
std::vector<ThreadTotal> threadTotals(const std::string& report);
