// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Finds the library's texts in any other text. Holds the report that is being read and a few lines
/// ahead of it, never the input.

#include <cstddef>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "report/frame_table.h"
#include "report/report.h"

namespace ThreadUtilities::companion {

/// Gets the pieces in their order. Every byte of the input belongs to one piece.
class ReportSink {
 public:
    virtual ~ReportSink() = default;
    /// Whole lines that belong to no report, as they stood.
    virtual void onText(std::string_view lines) = 0;
    virtual void onProfile(Profile&& profile) = 0;
    virtual void onThreads(ThreadReport&& report) = 0;
    virtual void onStack(StackText&& stack) = 0;
    virtual void onComplaint(const Complaint& complaint) = 0;
};

/// Why a file cannot be used at all: one line for the error stream, exit status 2.
class InputError : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

/// Fills the room as far as there are bytes now; 0 at the end.
using ReadBytes = std::function<std::size_t(char* room, std::size_t size)>;

/// The bytes of a file, or of the standard input for "-". Throws InputError: no such file, a
/// folder, unreadable.
ReadBytes openInput(const std::filesystem::path& path);

/// Reads to the end. Throws InputError for what no report of the library can be.
void readReports(const ReadBytes& input, FrameTable& frames, ReportSink& sink);

/// A whole file in memory, for what looks at it as a whole.
struct Document {
    FrameTable frames;
    std::vector<Profile> profiles;
    std::vector<ThreadReport> threadReports;
    std::vector<StackText> stacks;
    std::vector<Complaint> complaints;
};

/// As openInput. Throws InputError also where there is no report in it, or one that is cut off.
Document readDocument(const std::filesystem::path& path);

}  // namespace ThreadUtilities::companion
