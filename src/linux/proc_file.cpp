// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/proc_file.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "linux/kernel_calls.h"

namespace ThreadUtilities::platform {

ProcPath::ProcPath(std::string_view before, unsigned int number, std::string_view after) noexcept {
    char* position = std::copy(before.begin(), before.end(), characters.begin());
    position = std::to_chars(position, characters.end(), number).ptr;
    position = std::copy(after.begin(), after.end(), position);
    *position = '\0';
}

KernelFile::KernelFile(const char* path) noexcept
    : own(openFile(path, O_RDONLY)), number(own.get()) {}

bool KernelFile::isMissing() const noexcept {
    return number == -ENOENT || number == -ESRCH;
}

std::size_t KernelFile::read(char* out, std::size_t size) noexcept {
    const long got =
        kernelCall(SYS_pread64, number, argument(out), static_cast<long>(size), position);
    position += std::max(got, 0L);
    return got > 0 ? static_cast<std::size_t>(got) : 0;
}

bool KernelFile::readAt(std::uint64_t offset, void* out, std::size_t size) const noexcept {
    return kernelCall(SYS_pread64, number, argument(out), static_cast<long>(size),
                      static_cast<long>(offset)) == static_cast<long>(size);
}

std::string_view readProcFile(const ProcPath& path, char* buffer, std::size_t size) noexcept {
    KernelFile file(path);
    return std::string_view(buffer, file.isOpen() ? file.read(buffer, size) : 0);
}

bool LineReader::refill() noexcept {
    std::memmove(buffer.data(), buffer.data() + begin, end - begin);
    end -= begin;
    begin = 0;
    const std::size_t got = file.read(buffer.data() + end, buffer.size() - end);
    end += got;
    return got != 0;
}

bool LineReader::next(std::string_view& line) noexcept {
    for (;;) {
        const std::string_view rest(buffer.data() + begin, end - begin);
        const std::size_t length = rest.find('\n');
        if (length != std::string_view::npos) {
            line = rest.substr(0, length);
            begin += length + 1;
            return true;
        }
        if (rest.size() == buffer.size()) {
            line = rest;
            begin = end = 0;
            return true;
        }
        if (!refill()) {
            line = rest;
            begin = end = 0;
            return !rest.empty();
        }
    }
}

}  // namespace ThreadUtilities::platform
