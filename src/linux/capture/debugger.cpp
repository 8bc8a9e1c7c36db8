// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/debugger.h"

#include <array>
#include <cstddef>
#include <string_view>

#include "linux/proc_file.h"

namespace ThreadUtilities::platform {

// There is no cheaper way to ask that tells the truth. The file is the calling thread's own,
// because the first thread's says nothing once that thread has ended, and it needs no thread id, so
// that it is the right one under a /proc that counts threads in other numbers, too. The line stands
// before any whose length varies, but for the name, which has at most 15 characters of 4 bytes
// each.
bool isDebuggerAttached() noexcept {
    KernelFile file("/proc/thread-self/status");
    std::array<char, 512> buffer;
    const std::string_view text(buffer.data(), file.read(buffer.data(), buffer.size()));
    constexpr std::string_view name = "\nTracerPid:";
    const std::size_t begin = text.find(name);
    unsigned int tracer = 0;
    return begin != std::string_view::npos && parseField(text.substr(begin), name, 10, tracer) &&
           tracer != 0;
}

}  // namespace ThreadUtilities::platform
