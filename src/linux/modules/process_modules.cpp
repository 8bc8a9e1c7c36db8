// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/modules/process_modules.h"

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "foundation/ascii.h"
#include "linux/capture/handler/elf_headers.h"
#include "linux/modules/build_id.h"
#include "linux/modules/image_reader.h"
#include "linux/modules/mapped_file.h"
#include "linux/modules/mapped_images.h"
#include "linux/modules/process_map.h"
#include "linux/threads/task_folder.h"
#include "platform/text.h"

namespace ThreadUtilities::platform {
namespace {

std::optional<DebugGuid> readBuildId(const ImageReader& reader, const ImageHeaders& headers) {
    std::vector<std::uint8_t> bytes;
    return buildIdOf(headers.table(), [&](const ProgramHeader& note) {
        bytes = readNotes(reader, headers, note);
        return ByteCursor(bytes.data(), bytes.size());
    });
}

LoadedModule moduleOf(pid_t task, const MappedImage& image, const ImageReader& reader) {
    const MappedRange& first = image.ranges.front();
    LoadedModule module;
    module.path = first.name == kernelImageMark
                      ? wideFromAscii(kernelImageName)
                      : utf8ToWide(pathOfMappedFile("/proc/" + std::to_string(task), first));
    module.imageBase = image.begin();
    module.imageSize = image.size;
    if (image.headers) {
        module.debugGuid = readBuildId(reader, *image.headers);
    }
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
    visitMappedImages(task.id, ranges, [&](const MappedImage& image, const ImageReader& reader) {
        modules.push_back(moduleOf(task.id, image, reader));
    });
    return modules;
}

std::string ownMappedFilePath(std::uint64_t address) {
    const std::string text = readMapText("/proc/thread-self/maps");
    for (const MappedRange& range : parseProcessMap(text)) {
        if (range.begin <= address && address < range.end && range.name.starts_with('/')) {
            return pathOfMappedFile("/proc/thread-self", range);
        }
    }
    return {};
}

}  // namespace ThreadUtilities::platform
