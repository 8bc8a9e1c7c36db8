// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/process_frames.h"

#include <ThreadUtilities/StackTrace.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace ThreadUtilities::companion {

FrameId ProcessFrames::at(unsigned long long address) {
    const auto [entry, isNew] = known.try_emplace(address, FrameTable::unknown);
    if (isNew) {
        // A path's text, whatever its characters are, becomes UTF-8 by way of a path.
        const std::u8string text =
            std::filesystem::path(getFrameDetails(processId, address)).u8string();
        const std::string bytes(text.begin(), text.end());
        if (const auto pieces = parseFrame(bytes)) {
            entry->second = interner.intern(*pieces).value_or(FrameTable::unknown);
        }
    }
    return entry->second;
}

std::vector<FrameId> ProcessFrames::callers(const ThreadLook& look,
                                            const std::vector<unsigned long long>& addresses) {
    std::vector<FrameId> frames;
    frames.reserve(look.frameCount + 1);
    for (std::size_t index = 0; index < look.frameCount && index < addresses.size(); ++index) {
        frames.push_back(at(addresses[index]));
    }
    return frames;
}

std::vector<FrameId> ProcessFrames::all(const ThreadLook& look,
                                        const std::vector<unsigned long long>& addresses) {
    std::vector<FrameId> frames = callers(look, addresses);
    if (look.result == LookResult::Stopped && look.frameCount != 0) {
        // Frames are return addresses, of which the byte before is looked up.
        frames.insert(frames.begin(), at(look.instructionPointer + 1));
    }
    return frames;
}

}  // namespace ThreadUtilities::companion
