// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/proc_file.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <string_view>

#include "linux/task_file.h"

namespace ThreadUtilities::platform {

ProcPath::ProcPath(std::string_view before, unsigned int number, std::string_view after) noexcept {
    char* position = std::copy(before.begin(), before.end(), characters.begin());
    position = std::to_chars(position, characters.end(), number).ptr;
    position = std::copy(after.begin(), after.end(), position);
    *position = '\0';
}

std::string_view readProcFile(const ProcPath& path, char* buffer, std::size_t size) noexcept {
    KernelFile file(path.text());
    return std::string_view(buffer, file.isOpen() ? file.read(buffer, size) : 0);
}

}  // namespace ThreadUtilities::platform
