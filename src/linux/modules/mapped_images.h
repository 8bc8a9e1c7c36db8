// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The images (program, libraries) of any process, as its memory map shows them.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/checked_bytes.h"
#include "linux/capture/handler/elf_headers.h"
#include "linux/modules/image_reader.h"
#include "linux/modules/process_map.h"
#include "platform/modules.h"

namespace ThreadUtilities::platform {

/// What the map calls the code that the kernel puts into every process.
constexpr std::string_view kernelImageMark = "[vdso]";

/// The text of the map at `path`; empty when it cannot be read.
std::string readMapText(const char* path);

/// A process, by way of one of its threads that still has the process's memory.
struct LiveTask {
    pid_t id = 0;
    std::string mapText;  ///< empty when there is none
};

/// A first thread that has ended shows an empty map although the others run on.
LiveTask findLiveTask(unsigned int processId);

/// An image's program headers, and what they say of it as a whole.
struct ImageHeaders {
    std::vector<std::uint8_t> bytes;
    ImageExtent extent;

    ByteCursor table() const { return {bytes.data(), bytes.size()}; }
};

struct MappedImage {
    std::span<const MappedRange> ranges;  ///< the first one begins the image
    std::uint64_t size = 0;               ///< bytes up to the highest mapped end
    std::optional<ImageHeaders> headers;  ///< none where they cannot be read

    std::uint64_t begin() const { return ranges.front().begin; }
};

using ImageVisitor = std::function<void(const MappedImage& image, const ImageReader& reader)>;

/// Shows the images among the ranges of a task's map, in ascending order of address.
void visitMappedImages(pid_t task, std::span<const MappedRange> ranges,
                       const ImageVisitor& visitor);

/// The notes of an image that `header` is the program header of, as far as they can be read.
std::vector<std::uint8_t> readNotes(const ImageReader& reader, const ImageHeaders& headers,
                                    const ProgramHeader& header);

}  // namespace ThreadUtilities::platform
