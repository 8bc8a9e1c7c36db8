// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/modules/mapped_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "linux/kernel_calls.h"

namespace ThreadUtilities::platform {
namespace {

/// The file at `path` opened for reading, if it is a regular one, and has that number.
Descriptor openRegularFile(const std::string& path, int flags, std::optional<std::uint64_t> inode) {
    const Descriptor place(openFile(path.c_str(), O_PATH | flags));
    struct stat facts{};
    if (!place.isOpen() || fstat(place.get(), &facts) != 0 || !S_ISREG(facts.st_mode) ||
        (inode && facts.st_ino != *inode)) {
        return {};
    }
    const std::string self = "/proc/thread-self/fd/" + std::to_string(place.get());
    return Descriptor(openFile(self.c_str(), O_RDONLY | O_NONBLOCK));
}

/// The kernel's link to the file that is mapped at a range.
std::string linkOf(const std::string& folder, const MappedRange& range) {
    std::array<char, 40> text;
    char* const end = text.data() + text.size();
    char* position = std::to_chars(text.data(), end, range.begin, 16).ptr;
    *position++ = '-';
    position = std::to_chars(position, end, range.end, 16).ptr;
    return folder + "/map_files/" + std::string(text.data(), position);
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

Descriptor openMappedFile(pid_t task, const MappedRange& range) {
    if (!range.name.starts_with('/')) {
        return {};
    }
    const std::string folder = "/proc/" + std::to_string(task);
    // File systems that are laid over others show the map and who opens a file different numbers.
    if (Descriptor file = openRegularFile(linkOf(folder, range), 0, std::nullopt); file.isOpen()) {
        return file;
    }
    return openRegularFile(folder + "/root" + pathOfMappedFile(folder, range), O_NOFOLLOW,
                           range.inode);
}

std::size_t readFileAt(const Descriptor& file, std::uint64_t offset,
                       std::span<std::uint8_t> out) noexcept {
    const long size = file.isOpen()
                          ? kernelCall(SYS_pread64, file.get(), argument(out.data()),
                                       static_cast<long>(out.size()), static_cast<long>(offset))
                          : 0;
    return size > 0 ? static_cast<std::size_t>(size) : 0;
}

}  // namespace ThreadUtilities::platform
