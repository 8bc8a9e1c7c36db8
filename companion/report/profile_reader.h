// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// One profile, from its first line to its last.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "report/frame_text.h"
#include "report/line_buffer.h"
#include "report/report.h"
#include "report/report_reader.h"

namespace ThreadUtilities::companion {

class ProfileReader {
 public:
    ProfileReader(LineBuffer& lineBuffer, FrameInterner& frameInterner, ReportSink& reportSink)
        : lines(lineBuffer), frames(frameInterner), sink(reportSink) {}

    /// Whether a profile begins on this line, maybe behind a log's own words: their length.
    std::optional<std::size_t> findBeginning();

    /// Precondition: findBeginning(). Lines that belong to others go to the sink as text; they come
    /// before the profile, which is complete only at its end.
    Profile read();

 private:
    struct FrameLine {
        std::size_t depth = 0;
        std::uint64_t count = 0;
        std::string_view text;
    };
    /// A node whose children are being read.
    struct OpenNode {
        std::uint32_t index = 0;
        /// What its count leaves for further children.
        std::uint64_t left = 0;
    };
    /// A frame of the outermost level, for the case that it turns out to be a part of the name.
    struct OutermostFrame {
        std::uint32_t index = 0;
        std::size_t line = 0;
    };

    void readHeader(Profile& profile);
    void readThread(Profile& profile);
    void readName(ThreadProfile& thread);
    void readFrames(ThreadProfile& thread);
    bool readFrame(ThreadProfile& thread, const FrameLine& line);
    bool passForeignLine();
    void closeThread(ThreadProfile& thread);
    void moveFramesToName(ThreadProfile& thread, std::size_t outermostCount);
    void complain(std::size_t line, std::string what, bool isCutOff = false);

    static std::optional<FrameLine> parseFrameLine(std::string_view line);

    LineBuffer& lines;
    FrameInterner& frames;
    ReportSink& sink;
    /// Of all threads read.
    std::uint64_t samplesRead = 0;
    std::vector<OpenNode> open;
    std::vector<OutermostFrame> outermost;
};

}  // namespace ThreadUtilities::companion
