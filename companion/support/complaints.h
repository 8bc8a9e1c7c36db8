// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <string>

#include "report/report.h"

namespace ThreadUtilities::companion {

/// Writes what could not be read to the error stream: the first ones, and how many more there are.
class ComplaintLog {
 public:
    explicit ComplaintLog(const std::string& inputName);
    ~ComplaintLog();
    ComplaintLog(const ComplaintLog&) = delete;
    ComplaintLog& operator=(const ComplaintLog&) = delete;

    void write(const Complaint& complaint);
    std::size_t size() const { return count; }

 private:
    std::string name;
    std::size_t count = 0;
};

}  // namespace ThreadUtilities::companion
