// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/modules/mapped_images.h"

#include <sys/types.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "linux/proc_file.h"
#include "linux/threads/task_folder.h"

namespace ThreadUtilities::platform {
namespace {

/// More than the kernel's default limit of 65,530 mappings can fill with usual paths.
constexpr std::size_t longestMap = 64 * 1024 * 1024;
constexpr std::size_t longestNotes = 64 * 1024;

std::string readMap(unsigned int id) {
    return readMapText(ProcPath("/proc/", id, "/maps").text());
}

/// Whether any of the memory from here up to the start of another mapped file is code. Spares the
/// files that are mapped as data from being read.
bool mayHoldCode(std::span<const MappedRange> ranges) {
    for (const MappedRange& range : ranges) {
        if (range.fileOffset == 0 && !range.name.empty() && range.name != ranges.front().name) {
            return false;
        }
        if (range.isExecutable) {
            return true;
        }
    }
    return false;
}

bool isOfSameFile(const MappedRange& range, const MappedRange& other) {
    return range.name == other.name && range.inode == other.inode;
}

/// Where in memory, from the image's base, the byte at `fileOffset` of its file lies, if it does.
std::optional<std::uint64_t> imageOffsetOf(std::span<const MappedRange> ranges,
                                           std::uint64_t fileOffset) {
    const MappedRange& first = ranges.front();
    for (const MappedRange& range : ranges) {
        if (isOfSameFile(range, first) && fileOffset >= range.fileOffset &&
            fileOffset - range.fileOffset < range.end - range.begin) {
            return range.begin - first.begin + (fileOffset - range.fileOffset);
        }
    }
    return std::nullopt;
}

/// None when the image is no object that can be loaded, or cannot be read; `isReadable` tells.
std::optional<ImageHeaders> readHeaders(const ImageReader& reader,
                                        std::span<const MappedRange> ranges, bool& isReadable) {
    std::array<std::uint8_t, fileHeaderSize> header;
    const std::size_t headerSize = reader.read(0, 0, header);
    isReadable = headerSize != 0;
    const auto place = findProgramHeaders(ByteCursor(header.data(), headerSize));
    if (!place) {
        return std::nullopt;
    }
    ImageHeaders headers{std::vector<std::uint8_t>(place->size), {}};  // at most 65,535 entries
    const auto imageOffset = imageOffsetOf(ranges, place->fileOffset);
    const std::size_t size = imageOffset
                                 ? reader.read(*imageOffset, place->fileOffset, headers.bytes)
                                 : reader.readFile(place->fileOffset, headers.bytes);
    if (size != headers.bytes.size()) {
        isReadable = false;  // what begins like an object may be one
        return std::nullopt;
    }
    const auto extent = extentOf(headers.table());
    if (!extent) {
        return std::nullopt;
    }
    headers.extent = *extent;
    return headers;
}

/// Where the last of the ranges ends that begin below `limit` and belong to the image: those of
/// the image's file, and memory without a file that adjoins them (zero-initialised data).
std::uint64_t mappedEnd(std::span<const MappedRange> ranges, std::uint64_t limit) {
    std::uint64_t end = ranges.front().end;
    for (const MappedRange& range : ranges.subspan(1)) {
        if (range.begin >= limit) {
            break;
        }
        if (isOfSameFile(range, ranges.front()) || (range.name.empty() && range.begin == end)) {
            end = range.end;
        }
    }
    return std::min(end, limit);
}

/// Where an image ends that cannot be asked: before the first range of another file, and before
/// its own file begins anew, for then it is mapped a second time.
std::uint64_t guessedLimit(std::span<const MappedRange> ranges) {
    const MappedRange* last = &ranges.front();
    for (const MappedRange& range : ranges.subspan(1)) {
        if (!range.name.empty()) {
            if (!isOfSameFile(range, *last) || range.fileOffset < last->fileOffset ||
                range.fileOffset == 0) {
                return range.begin;
            }
            last = &range;
        }
    }
    return ranges.back().end;
}

/// The image that begins with the first of these ranges, if one does.
std::optional<MappedImage> readImage(const ImageReader& reader,
                                     std::span<const MappedRange> ranges) {
    bool isReadable = false;
    MappedImage image{ranges, 0, readHeaders(reader, ranges, isReadable)};
    std::uint64_t limit = 0;
    if (image.headers) {
        const ImageExtent& extent = image.headers->extent;
        const auto end = checkedAdd(image.begin(), extent.end - extent.begin);
        if (!end) {
            return std::nullopt;
        }
        limit = *end;
    } else if (isReadable) {
        return std::nullopt;
    } else {
        limit = guessedLimit(ranges);
    }
    image.size = mappedEnd(ranges, limit) - image.begin();
    return image;
}

bool mayBeginImage(std::span<const MappedRange> ranges) {
    const MappedRange& first = ranges.front();
    return first.fileOffset == 0 &&
           (first.name == kernelImageMark || first.name.starts_with('/')) && mayHoldCode(ranges);
}

}  // namespace

std::string readMapText(const char* path) {
    KernelFile file(path);
    std::string text;
    std::size_t size = 0;
    while (file.isOpen() && size < longestMap) {
        text.resize(std::max<std::size_t>(2 * size, 32 * 1024));
        const std::size_t count = file.read(text.data() + size, text.size() - size);
        if (count == 0) {
            break;
        }
        size += count;
    }
    text.resize(size);
    return text;
}

LiveTask findLiveTask(unsigned int processId) {
    if (std::string text = readMap(processId); !text.empty()) {
        return {static_cast<pid_t>(processId), std::move(text)};
    }
    for (const unsigned int id :
         listNumberedEntries(ProcPath("/proc/", processId, "/task").text())) {
        if (std::string text = readMap(id); !text.empty()) {
            return {static_cast<pid_t>(id), std::move(text)};
        }
    }
    return {};
}

void visitMappedImages(pid_t task, std::span<const MappedRange> ranges,
                       const ImageVisitor& visitor) {
    std::uint64_t listedEnd = 0;
    for (std::size_t index = 0; index < ranges.size(); ++index) {
        const auto rest = ranges.subspan(index);
        // A small file's data may be a second mapping of its first page.
        if (rest.front().begin < listedEnd || !mayBeginImage(rest)) {
            continue;
        }
        const ImageReader reader(task, rest.front());
        if (const auto image = readImage(reader, rest)) {
            listedEnd = image->begin() + image->size;
            visitor(*image, reader);
        }
    }
}

std::vector<std::uint8_t> readNotes(const ImageReader& reader, const ImageHeaders& headers,
                                    const ProgramHeader& header) {
    std::vector<std::uint8_t> notes(std::min<std::uint64_t>(header.fileSize, longestNotes));
    // What wraps lies outside every image, and is not readable.
    notes.resize(reader.read(header.address - headers.extent.begin, header.fileOffset, notes));
    return notes;
}

}  // namespace ThreadUtilities::platform
