// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "support/complaints.h"

#include <cstdio>
#include <string>

#include "support/terminal.h"

namespace ThreadUtilities::companion {
namespace {

constexpr std::size_t mostLines = 20;

}  // namespace

ComplaintLog::ComplaintLog(const std::string& inputName) : name(printable(inputName)) {}

ComplaintLog::~ComplaintLog() {
    if (count > mostLines) {
        std::fprintf(stderr, "thread-utilities: %s: %zu more like these\n", name.c_str(),
                     count - mostLines);
    }
}

void ComplaintLog::write(const Complaint& complaint) {
    if (++count <= mostLines) {
        std::fprintf(stderr, "thread-utilities: %s: line %zu: %s\n", name.c_str(), complaint.line,
                     complaint.what.c_str());
    }
}

}  // namespace ThreadUtilities::companion
