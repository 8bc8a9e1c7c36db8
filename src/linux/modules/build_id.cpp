// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/modules/build_id.h"

#include <elf.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>

namespace ThreadUtilities::platform {

std::optional<DebugGuid> findBuildId(ByteCursor notes, std::uint64_t alignment) noexcept {
    const std::size_t padding = alignment == 8 ? 8 : 4;
    while (notes.ok() && !notes.atEnd()) {
        const auto nameSize = notes.read<std::uint32_t>();
        const auto descriptionSize = notes.read<std::uint32_t>();
        const auto type = notes.read<std::uint32_t>();
        const ByteCursor name = notes.sub(nameSize);
        notes.alignTo(padding);
        const ByteCursor description = notes.sub(descriptionSize);
        if (!notes.ok()) {
            return std::nullopt;
        }
        if (type == NT_GNU_BUILD_ID && description.remaining() != 0 &&
            nameSize == sizeof(ELF_NOTE_GNU) &&
            std::memcmp(name.data(), ELF_NOTE_GNU, sizeof(ELF_NOTE_GNU)) == 0) {
            DebugGuid guid{};
            std::memcpy(guid.data(), description.data(),
                        std::min(guid.size(), description.remaining()));
            return guid;
        }
        notes.alignTo(padding);
    }
    return std::nullopt;
}

}  // namespace ThreadUtilities::platform
