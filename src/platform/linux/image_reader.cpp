#include "platform/linux/image_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <string>

namespace ThreadUtilities::platform {
namespace {

std::size_t readMemory(pid_t task, std::uint64_t address, std::span<std::uint8_t> out) noexcept {
    const iovec local{out.data(), out.size()};
    const iovec remote{reinterpret_cast<void*>(address), out.size()};
    const ssize_t size = process_vm_readv(task, &local, 1, &remote, 1, 0);
    return size > 0 ? static_cast<std::size_t>(size) : 0;
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
    const std::string path = "/proc/" + std::to_string(task) + "/root" + mappedFilePath(range.name);
    const Descriptor place(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat facts {};
    if (!place.isOpen() || fstat(place.get(), &facts) != 0 || !S_ISREG(facts.st_mode) ||
        facts.st_ino != range.inode) {
        return {};
    }
    const std::string self = "/proc/thread-self/fd/" + std::to_string(place.get());
    return Descriptor(open(self.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

}  // namespace

ImageReader::ImageReader(pid_t task, const MappedRange& first)
    : processTask(task), base(first.begin) {
    if (!canReadMemory(task, base)) {
        file = openMappedFile(task, first);
    }
}

std::size_t ImageReader::read(std::uint64_t imageOffset, std::uint64_t fileOffset,
                              std::span<std::uint8_t> out) const noexcept {
    if (!file.isOpen()) {
        return readMemory(processTask, base + imageOffset, out);
    }
    const ssize_t size = pread(file.get(), out.data(), out.size(), static_cast<off_t>(fileOffset));
    return size > 0 ? static_cast<std::size_t>(size) : 0;
}

}  // namespace ThreadUtilities::platform
