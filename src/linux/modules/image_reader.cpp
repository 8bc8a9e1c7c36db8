// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/modules/image_reader.h"

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "linux/kernel_calls.h"
#include "linux/modules/mapped_file.h"

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

}  // namespace

ImageReader::ImageReader(pid_t task, const MappedRange& firstRange)
    : processTask(task), first(firstRange) {
    if (!canReadMemory(task, first.begin)) {
        file = openMappedFile(task, first);
    }
}

std::size_t ImageReader::read(std::uint64_t imageOffset, std::uint64_t fileOffset,
                              std::span<std::uint8_t> out) const noexcept {
    return file.isOpen() ? readFileAt(file, fileOffset, out)
                         : readMemory(processTask, first.begin + imageOffset, out);
}

std::size_t ImageReader::readFile(std::uint64_t fileOffset, std::span<std::uint8_t> out) const {
    if (file.isOpen()) {
        return readFileAt(file, fileOffset, out);
    }
    return readFileAt(openMappedFile(processTask, first), fileOffset, out);
}

}  // namespace ThreadUtilities::platform
