// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// The text of one frame: `name+0xOFFSET{GUID};`.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "report/frame_table.h"

namespace ThreadUtilities::companion {

/// The pieces of a frame's text, still as they stand in the line.
struct FramePieces {
    std::string_view name;
    std::string_view guid;
    std::uint64_t offset = 0;
};

/// The first `+0xOFFSET{GUID};` at or after `from`.
struct FrameTail {
    std::size_t begin = 0;
    std::size_t end = 0;
    std::string_view guid;
    std::uint64_t offset = 0;
};
std::optional<FrameTail> findFrameTail(std::string_view line, std::size_t from);

/// A text that is one frame from its first character to its last.
std::optional<FramePieces> parseFrame(std::string_view text);

/// Puts frames into the table. Modules repeat, so the last ones are remembered as they were
/// written.
class FrameInterner {
 public:
    explicit FrameInterner(FrameTable& frameTable) : frames(frameTable) {}

    /// Nothing where the GUID is none.
    std::optional<FrameId> intern(const FramePieces& pieces);
    std::string text(FrameId frame) const { return frames.text(frame); }

 private:
    struct Remembered {
        std::string name;
        std::string guid;
        ModuleId module = 0;
    };

    FrameTable& frames;
    std::array<Remembered, 256> remembered;
};

}  // namespace ThreadUtilities::companion
