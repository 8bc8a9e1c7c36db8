// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/modules/process_modules.h"

#include <sys/types.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/ascii.h"
#include "linux/capture/handler/elf_headers.h"
#include "linux/modules/build_id.h"
#include "linux/modules/image_reader.h"
#include "linux/modules/process_map.h"
#include "linux/proc_file.h"
#include "linux/threads/task_folder.h"
#include "platform/text.h"

namespace ThreadUtilities::platform {
namespace {

/// More than the kernel's default limit of 65,530 mappings can fill with usual paths.
constexpr std::size_t longestMap = 64 * 1024 * 1024;
constexpr std::size_t longestNotes = 64 * 1024;
constexpr std::string_view kernelImageMark = "[vdso]";

std::string readText(const char* path, std::size_t limit) {
    KernelFile file(path);
    std::string text;
    std::size_t size = 0;
    while (file.isOpen() && size < limit) {
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

/// A process, by way of one of its threads that still has the process's memory.
struct LiveTask {
    pid_t id = 0;
    std::string mapText;
};

std::string readMap(unsigned int id) {
    return readText(ProcPath("/proc/", id, "/maps").text(), longestMap);
}

/// A first thread that has ended shows an empty map although the others run on.
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

/// An image's program headers, and what they say of it as a whole.
struct Image {
    std::vector<std::uint8_t> headers;
    ImageExtent extent;

    ByteCursor table() const { return {headers.data(), headers.size()}; }
};

/// None when the image is no object that can be loaded, or cannot be read; `isReadable` tells.
std::optional<Image> readImage(const ImageReader& reader, std::span<const MappedRange> ranges,
                               bool& isReadable) {
    std::array<std::uint8_t, fileHeaderSize> header;
    const std::size_t headerSize = reader.read(0, 0, header);
    isReadable = headerSize != 0;
    const auto place = findProgramHeaders(ByteCursor(header.data(), headerSize));
    if (!place) {
        return std::nullopt;
    }
    Image image{std::vector<std::uint8_t>(place->size), {}};  // at most 65,535 entries
    const auto imageOffset = imageOffsetOf(ranges, place->fileOffset);
    const std::size_t size = imageOffset
                                 ? reader.read(*imageOffset, place->fileOffset, image.headers)
                                 : reader.readFile(place->fileOffset, image.headers);
    if (size != image.headers.size()) {
        isReadable = false;  // what begins like an object may be one
        return std::nullopt;
    }
    const auto extent = extentOf(image.table());
    if (!extent) {
        return std::nullopt;
    }
    image.extent = *extent;
    return image;
}

std::optional<DebugGuid> readBuildId(const ImageReader& reader, const Image& image) {
    std::vector<std::uint8_t> bytes;
    return buildIdOf(image.table(), [&](const ProgramHeader& note) {
        bytes.resize(std::min<std::uint64_t>(note.fileSize, longestNotes));
        // What wraps lies outside every image, and is not readable.
        const std::size_t size =
            reader.read(note.address - image.extent.begin, note.fileOffset, bytes);
        return ByteCursor(bytes.data(), size);
    });
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

/// The module that begins with the first of these ranges, if one does.
std::optional<LoadedModule> readModule(pid_t task, std::span<const MappedRange> ranges) {
    const MappedRange& first = ranges.front();
    const bool isKernelImage = first.name == kernelImageMark;
    if (first.fileOffset != 0 || !(isKernelImage || first.name.starts_with('/')) ||
        !mayHoldCode(ranges)) {
        return std::nullopt;
    }
    LoadedModule module;
    module.path = isKernelImage
                      ? wideFromAscii(kernelImageName)
                      : utf8ToWide(pathOfMappedFile("/proc/" + std::to_string(task), first));
    module.imageBase = first.begin;
    const ImageReader reader(task, first);
    bool isReadable = false;
    std::uint64_t limit = 0;
    if (const auto image = readImage(reader, ranges, isReadable)) {
        const auto end = checkedAdd(first.begin, image->extent.end - image->extent.begin);
        if (!end) {
            return std::nullopt;
        }
        limit = *end;
        module.debugGuid = readBuildId(reader, *image);
    } else if (isReadable) {
        return std::nullopt;
    } else {
        limit = guessedLimit(ranges);
    }
    module.imageSize = mappedEnd(ranges, limit) - module.imageBase;
    return module;
}

}  // namespace

std::vector<LoadedModule> listProcessModules(unsigned int processId) {
    // The files of any thread show its process; an id that is no process's has no modules.
    if (!hasTask(processId, processId)) {
        return {};
    }
    const LiveTask task = findLiveTask(processId);
    const std::vector<MappedRange> ranges = parseProcessMap(task.mapText);
    std::vector<LoadedModule> modules;
    std::uint64_t listedEnd = 0;
    for (std::size_t index = 0; index < ranges.size(); ++index) {
        // A small file's data may be a second mapping of its first page.
        if (ranges[index].begin < listedEnd) {
            continue;
        }
        if (auto module = readModule(task.id, std::span(ranges).subspan(index))) {
            listedEnd = module->imageBase + module->imageSize;
            modules.push_back(std::move(*module));
        }
    }
    return modules;
}

std::string ownMappedFilePath(std::uint64_t address) {
    const std::string text = readText("/proc/thread-self/maps", longestMap);
    for (const MappedRange& range : parseProcessMap(text)) {
        if (range.begin <= address && address < range.end && range.name.starts_with('/')) {
            return pathOfMappedFile("/proc/thread-self", range);
        }
    }
    return {};
}

}  // namespace ThreadUtilities::platform
