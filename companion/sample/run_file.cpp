// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "sample/run_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "report/line_text.h"

namespace ThreadUtilities::companion {

RunFile::RunFile(const std::string& schedstat)
    : descriptor(open(schedstat.c_str(), O_RDONLY | O_CLOEXEC)) {}

RunFile::~RunFile() {
    if (descriptor >= 0) {
        close(descriptor);
    }
}

/// "TIME ON A PROCESSOR, TIME OF WAITING FOR ONE, RUNS".
std::optional<ThreadRunCount> RunFile::read() const {
    std::array<char, 80> buffer = {};
    const ssize_t length = pread(descriptor, buffer.data(), buffer.size(), 0);
    std::string_view text(buffer.data(), length < 0 ? 0 : static_cast<std::size_t>(length));
    const auto onProcessor = takeNumber(text);
    takeText(text, " ");
    const auto waiting = takeNumber(text);
    takeText(text, " ");
    const auto runs = takeNumber(text);
    if (!onProcessor || !waiting || !runs) {
        return std::nullopt;
    }
    return ThreadRunCount{*runs, *onProcessor, *waiting};
}

}  // namespace ThreadUtilities::companion
