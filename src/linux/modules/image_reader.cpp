// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/modules/image_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "linux/kernel_calls.h"

namespace ThreadUtilities::platform {
namespace {

std::size_t readMemory(pid_t task, std::uint64_t address, std::span<std::uint8_t> out) noexcept {
    const iovec there[] = {{reinterpret_cast<void*>(address), out.size()}};
    const iovec here[] = {{out.data(), out.size()}};
    return copyMemory(task, there, here);
}

bool canReadMemory(pid_t task, std::uint64_t address) noexcept {
    std::uint8_t byte = 0;
    return readMemory(task, address, {&byte, 1}) == 1;
}

/// The mapped file itself, by the process's own view of the file system; not open where another
/// file has taken its name since. Only a regular file is ever opened for reading: to open a pipe
/// may wait, and to open a device may do something.
Descriptor openMappedFile(pid_t task, const MappedRange& range) {
    if (!range.name.starts_with('/')) {
        return {};
    }
    const std::string folder = "/proc/" + std::to_string(task);
    const std::string path = folder + "/root" + pathOfMappedFile(folder, range);
    const Descriptor place(openFile(path.c_str(), O_PATH | O_NOFOLLOW));
    struct stat facts{};
    if (!place.isOpen() || fstat(place.get(), &facts) != 0 || !S_ISREG(facts.st_mode) ||
        facts.st_ino != range.inode) {
        return {};
    }
    const std::string self = "/proc/thread-self/fd/" + std::to_string(place.get());
    return Descriptor(openFile(self.c_str(), O_RDONLY | O_NONBLOCK));
}

std::size_t readAt(const Descriptor& file, std::uint64_t offset,
                   std::span<std::uint8_t> out) noexcept {
    const ssize_t size =
        file.isOpen() ? pread(file.get(), out.data(), out.size(), static_cast<off_t>(offset)) : 0;
    return size > 0 ? static_cast<std::size_t>(size) : 0;
}

}  // namespace

std::string pathOfMappedFile(const std::string& folder, const MappedRange& range) {
    std::string path = mappedFilePath(range.name, false);
    struct stat facts{};
    if (isMarkedDeleted(range.name) &&
        (stat((folder + "/root" + path).c_str(), &facts) != 0 || facts.st_ino != range.inode)) {
        path = mappedFilePath(range.name, true);
    }
    return path;
}

ImageReader::ImageReader(pid_t task, const MappedRange& firstRange)
    : processTask(task), first(firstRange) {
    if (!canReadMemory(task, first.begin)) {
        file = openMappedFile(task, first);
    }
}

std::size_t ImageReader::read(std::uint64_t imageOffset, std::uint64_t fileOffset,
                              std::span<std::uint8_t> out) const noexcept {
    return file.isOpen() ? readAt(file, fileOffset, out)
                         : readMemory(processTask, first.begin + imageOffset, out);
}

std::size_t ImageReader::readFile(std::uint64_t fileOffset, std::span<std::uint8_t> out) const {
    if (file.isOpen()) {
        return readAt(file, fileOffset, out);
    }
    return readAt(openMappedFile(processTask, first), fileOffset, out);
}

}  // namespace ThreadUtilities::platform
