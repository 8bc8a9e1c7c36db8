// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Any bytes as the start of an image, and as a segment of notes: nothing is read outside, and what
// is found is inside.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/require.h"
#include "linux/capture/handler/elf_headers.h"
#include "linux/modules/build_id.h"

namespace {

using namespace ThreadUtilities;
using namespace ThreadUtilities::platform;

/// The id's bytes stand in the segment, as far as they are not padding.
void checkBuildId(const std::vector<std::uint8_t>& bytes, std::uint64_t alignment) {
    const auto guid = findBuildId(ByteCursor(bytes.data(), bytes.size()), alignment);
    if (!guid) {
        return;
    }
    const auto padding = std::find_if(guid->rbegin(), guid->rend(), [](auto byte) { return byte; });
    require(std::search(bytes.begin(), bytes.end(), guid->begin(), padding.base()) != bytes.end() ||
            padding == guid->rend());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<std::uint8_t> bytes(data, data + size);
    checkBuildId(bytes, 4);
    checkBuildId(bytes, 8);
    ByteCursor file(bytes.data(), bytes.size());
    const auto place = findProgramHeaders(file);
    if (!place) {
        return 0;
    }
    file.seek(place->fileOffset);
    const ByteCursor table = file.sub(place->size);
    if (const auto extent = extentOf(table)) {
        require(extent->begin < extent->end && extent->end % memoryPageSize == 0);
        std::size_t notes = 0;
        buildIdOf(table, [&](const ProgramHeader&) { return ++notes, ByteCursor(); });
        require(notes <= size / 56);
    }
    return 0;
}
