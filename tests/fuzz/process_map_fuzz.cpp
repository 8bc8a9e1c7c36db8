// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Any bytes as a process's memory map: ranges are not empty, and names are parts of the text.

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/require.h"
#include "linux/modules/process_map.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace ThreadUtilities::platform;
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (const MappedRange& range : parseProcessMap(text)) {
        require(range.begin < range.end);
        require(range.name.find('\n') == range.name.npos);
        if (!range.name.empty()) {
            require(range.name.data() >= text.data() &&
                    range.name.data() + range.name.size() <= text.data() + text.size());
        }
        require(mappedFilePath(range.name, true).size() <= range.name.size());
    }
    return 0;
}
