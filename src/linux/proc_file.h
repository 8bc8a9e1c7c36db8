// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Files that the kernel writes about processes and threads, read without the C library: no
// allocation, no cancellation point, no `errno`. They are opened and closed here: a descriptor that
// is kept may be closed, or made to mean another file, by a host that closes what it did not open.

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "linux/descriptor.h"

namespace ThreadUtilities::platform {

/// A path with one number in it, in a buffer of fixed size.
class ProcPath {
 public:
    /// `before` and `after` together have fewer than 50 characters.
    ProcPath(std::string_view before, unsigned int number, std::string_view after) noexcept;
    const char* text() const noexcept { return characters.data(); }

 private:
    std::array<char, 64> characters;
};

/// Of a thread of this process: "/proc/self/task/<threadId>/<name>". `name` begins with the slash.
inline ProcPath ownTaskPath(unsigned int threadId, std::string_view name) noexcept {
    return {"/proc/self/task/", threadId, name};
}

/// An open file, closed with the object unless it is somebody else's. Read from its beginning.
class KernelFile {
 public:
    explicit KernelFile(const char* path) noexcept;
    explicit KernelFile(const ProcPath& path) noexcept : KernelFile(path.text()) {}
    /// One that somebody else keeps open; not open where the number is negative.
    explicit KernelFile(int keptOpen) noexcept : number(keptOpen) {}
    KernelFile(const KernelFile&) = delete;
    KernelFile& operator=(const KernelFile&) = delete;

    bool isOpen() const noexcept { return number >= 0; }
    bool isMissing() const noexcept;
    /// The bytes read; 0 at the end and on failure.
    std::size_t read(char* out, std::size_t size) noexcept;
    /// Whether all `size` bytes that begin at `offset` were read.
    bool readAt(std::uint64_t offset, void* out, std::size_t size) const noexcept;

 private:
    Descriptor own;
    int number;
    long position = 0;
};

/// Reads the first `size` bytes of a file that the kernel writes in one piece. Empty when it
/// cannot be read.
std::string_view readProcFile(const ProcPath& path, char* buffer, std::size_t size) noexcept;

/// The lines of a kernel file one after another, in a buffer of fixed size. A line longer than the
/// buffer comes in pieces, of which only the first can begin with a name of interest.
class LineReader {
 public:
    explicit LineReader(KernelFile& source) noexcept : file(source) {}
    /// False at the end.
    bool next(std::string_view& line) noexcept;

 private:
    bool refill() noexcept;

    KernelFile& file;
    std::array<char, 1024> buffer;
    std::size_t begin = 0;
    std::size_t end = 0;
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
