// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Lines of the report of all threads, and any other line with frames in it.

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

#include "report/frame_text.h"
#include "report/line_buffer.h"
#include "report/report.h"
#include "report/report_reader.h"

namespace ThreadUtilities::companion {

class StackReader {
 public:
    StackReader(LineBuffer& lineBuffer, FrameInterner& frameInterner, ReportSink& reportSink)
        : lines(lineBuffer), frames(frameInterner), sink(reportSink) {}

    /// Hands on a report of all threads, or the stacks in one line. False, and nothing read, where
    /// the line has none.
    bool read();

 private:
    struct ThreadLine {
        ThreadStack thread;
        /// What a log wrote before it in its first line.
        std::size_t prefixLength = 0;
        std::size_t lineCount = 1;
    };

    std::optional<ThreadLine> findThread(bool mayHavePrefix);
    std::optional<std::size_t> framesAtEnd(std::string_view line, std::vector<FrameId>& found);
    bool readStacks();

    LineBuffer& lines;
    FrameInterner& frames;
    ReportSink& sink;
};

}  // namespace ThreadUtilities::companion
