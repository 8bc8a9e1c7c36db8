// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/task_file.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "linux/kernel_calls.h"

namespace ThreadUtilities::platform {

KernelFile::KernelFile(const char* path) noexcept
    : descriptor_(static_cast<int>(
          kernelCall(SYS_openat, AT_FDCWD, argument(path), O_RDONLY | O_CLOEXEC))) {}

KernelFile::~KernelFile() {
    if (isOwn_ && isOpen()) {
        kernelCall(SYS_close, descriptor_);
    }
}

bool KernelFile::isMissing() const {
    return descriptor_ == -ENOENT || descriptor_ == -ESRCH;
}

std::size_t KernelFile::read(char* out, std::size_t size) noexcept {
    const long got =
        kernelCall(SYS_pread64, descriptor_, argument(out), static_cast<long>(size), offset_);
    offset_ += std::max(got, 0L);
    return got > 0 ? static_cast<std::size_t>(got) : 0;
}

bool KernelFile::readAt(std::uint64_t offset, void* out, std::size_t size) const noexcept {
    return kernelCall(SYS_pread64, descriptor_, argument(out), static_cast<long>(size),
                      static_cast<long>(offset)) == static_cast<long>(size);
}

TaskPath::TaskPath(unsigned int threadId, std::string_view name) noexcept {
    constexpr std::string_view folder = "/proc/self/task/";
    char* out = std::copy(folder.begin(), folder.end(), text_.data());
    char* const last = text_.data() + text_.size() - 1;
    out = std::to_chars(out, last, threadId).ptr;
    *out++ = '/';
    std::copy_n(name.begin(), std::min(name.size(), static_cast<std::size_t>(last - out)), out);
}

bool LineReader::refill() noexcept {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    const std::size_t got = file_.read(buffer_.data() + end_, buffer_.size() - end_);
    end_ += got;
    return got != 0;
}

bool LineReader::next(std::string_view& line) noexcept {
    for (;;) {
        const std::string_view rest(buffer_.data() + begin_, end_ - begin_);
        const std::size_t length = rest.find('\n');
        if (length != std::string_view::npos) {
            line = rest.substr(0, length);
            begin_ += length + 1;
            return true;
        }
        if (rest.size() == buffer_.size()) {
            line = rest;
            begin_ = end_ = 0;
            return true;
        }
        if (!refill()) {
            line = rest;
            begin_ = end_ = 0;
            return !rest.empty();
        }
    }
}

}  // namespace ThreadUtilities::platform
