// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "thread_totals.h"

#include <sstream>

std::vector<ThreadTotal> threadTotals(const std::string& report) {
    std::vector<ThreadTotal> totals;
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string keyword;
        ThreadTotal total;
        char bracket = 0;
        if (words >> keyword >> total.id >> bracket >> total.samples && keyword == "Thread") {
            total.name = line.substr(line.find("]: ") + 3);
            totals.push_back(total);
        }
    }
    return totals;
}
