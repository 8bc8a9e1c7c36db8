// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// The code addresses of a report, each kept once.

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ThreadUtilities::companion {

using ModuleId = std::uint32_t;
using FrameId = std::uint32_t;

/// The bytes of a module's GUID as they stand in memory: on Linux the first 16 of its build-id,
/// padded with zeros.
using ModuleGuid = std::array<std::uint8_t, 16>;

constexpr ModuleGuid nilGuid = {};

/// The text between the braces of a frame: 8-4-4-4-12 upper-case digits, fields 1 to 3 reversed.
std::string guidText(const ModuleGuid& guid);

/// Lower-case digits of the bytes in order, as a build-id is written everywhere else.
std::string buildIdText(const ModuleGuid& guid);

/// The reverse of guidText; nothing for any other text.
std::optional<ModuleGuid> parseGuid(std::string_view text);

struct Module {
    std::string fileName;
    ModuleGuid guid = {};
};

struct Frame {
    ModuleId module = 0;
    /// From the lowest mapped address of the module. A return address: the call lies before it.
    std::uint64_t offset = 0;
};

/// Frame 0 is the one that the library could not describe: an address in no module.
class FrameTable {
 public:
    static constexpr FrameId unknown = 0;

    FrameTable();

    ModuleId internModule(std::string_view fileName, const ModuleGuid& guid);
    FrameId intern(ModuleId module, std::uint64_t offset);

    /// Number of frames, the unknown one included: ids are 0 to size() - 1.
    std::size_t size() const { return frames.size(); }
    std::size_t moduleCount() const { return modules.size(); }
    const Frame& frame(FrameId id) const { return frames[id]; }
    const Module& module(ModuleId id) const { return modules[id]; }
    const Module& moduleOf(FrameId id) const { return modules[frames[id].module]; }

    /// As the library writes it: `name+0xOFFSET{GUID};`; empty for the unknown frame.
    std::string text(FrameId id) const;

 private:
    struct KeyHash {
        std::size_t operator()(const Frame& key) const {
            return std::hash<std::uint64_t>()((key.offset ^ std::uint64_t{key.module} << 40) *
                                              0x9E3779B97F4A7C15);
        }
    };
    struct KeyEqual {
        bool operator()(const Frame& left, const Frame& right) const {
            return left.module == right.module && left.offset == right.offset;
        }
    };

    std::vector<Frame> frames;
    std::deque<Module> modules;
    std::unordered_map<Frame, FrameId, KeyHash, KeyEqual> frameIds;
    std::unordered_multimap<std::size_t, ModuleId> moduleIds;
};

}  // namespace ThreadUtilities::companion
