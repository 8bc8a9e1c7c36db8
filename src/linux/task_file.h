// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Files of the kernel about one thread of this process, read without the C library: no allocation,
// no cancellation point, no descriptor left open.

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ThreadUtilities::platform {

/// An open file, closed with the object unless it is somebody else's. Read from its beginning.
class KernelFile {
 public:
    explicit KernelFile(const char* path) noexcept;
    /// One that somebody else keeps open; not open where the number is negative.
    explicit KernelFile(int descriptor) noexcept : descriptor_(descriptor), isOwn_(false) {}
    ~KernelFile();
    KernelFile(const KernelFile&) = delete;
    KernelFile& operator=(const KernelFile&) = delete;

    [[nodiscard]] bool isOpen() const { return descriptor_ >= 0; }
    [[nodiscard]] bool isMissing() const;
    /// The bytes read; 0 at the end and on failure.
    std::size_t read(char* out, std::size_t size) noexcept;
    /// Whether all `size` bytes that begin at `offset` were read.
    bool readAt(std::uint64_t offset, void* out, std::size_t size) const noexcept;

 private:
    int descriptor_;
    bool isOwn_ = true;
    long offset_ = 0;
};

/// "/proc/self/task/<threadId>/<name>"
class TaskPath {
 public:
    TaskPath(unsigned int threadId, std::string_view name) noexcept;
    [[nodiscard]] const char* text() const { return text_.data(); }

 private:
    std::array<char, 64> text_{};
};

/// The lines of a kernel file one after another, in a buffer of fixed size. A line longer than the
/// buffer comes in pieces, of which only the first can begin with a name of interest.
class LineReader {
 public:
    explicit LineReader(KernelFile& file) : file_(file) {}
    /// False at the end.
    bool next(std::string_view& line) noexcept;

 private:
    bool refill() noexcept;

    KernelFile& file_;
    std::array<char, 1024> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

/// The number after `name` where the line begins with it.
template <typename Number>
bool parseField(std::string_view line, std::string_view name, int base, Number& value) {
    if (!line.starts_with(name)) {
        return false;
    }
    line.remove_prefix(name.size());
    while (line.starts_with('\t') || line.starts_with(' ')) {
        line.remove_prefix(1);
    }
    const auto parsed = std::from_chars(line.data(), line.data() + line.size(), value, base);
    return parsed.ec == std::errc{};
}

}  // namespace ThreadUtilities::platform
