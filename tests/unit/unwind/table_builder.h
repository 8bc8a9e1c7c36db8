// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "platform/code_modules.h"

namespace ThreadUtilities::cfi {

using Bytes = std::vector<std::uint8_t>;

/// Writes unwind tables for made-up code into memory of its own. The module begins with the index,
/// `.eh_frame` follows, and the code lies in the rest: one call in each function, which ends at its
/// byte 16.
class TableBuilder {
 public:
    TableBuilder() : memory(moduleSize) {}

    /// Adds a CIE with the given augmentation (its data without the length) and program; returns
    /// where it stands.
    std::size_t addCie(const std::string& augmentation, const Bytes& augmentationData,
                       const Bytes& program) {
        const std::size_t entry = beginEntry();
        put32(0);
        put8(1);  // version
        for (const char letter : augmentation) {
            put8(static_cast<std::uint8_t>(letter));
        }
        put8(0);
        put8(1);     // code alignment
        put8(0x78);  // data alignment: -8
        put8(16);    // the return address is in column 16
        put8(static_cast<std::uint8_t>(augmentationData.size()));
        putAll(augmentationData);
        putAll(program);
        endEntry(entry);
        return entry;
    }

    /// Adds an FDE whose code is given by its offset in the module, as 32 bits relative to its
    /// place.
    void addFunction(std::size_t cie, std::uint64_t code, std::uint32_t size,
                     const Bytes& program) {
        const std::size_t entry = beginEntry();
        put32(static_cast<std::uint32_t>(end - cie));
        put32(static_cast<std::uint32_t>(code - end));
        put32(size);
        put8(0);  // no augmentation data
        putAll(program);
        endEntry(entry);
        memory.at(code + 16 - 5) = 0xE8;
        functions.push_back({static_cast<std::uint32_t>(code), static_cast<std::uint32_t>(entry)});
    }

    /// Ends the tables and writes the index.
    void finish() {
        put32(0);
        std::sort(functions.begin(), functions.end(),
                  [](const Function& one, const Function& other) { return one.code < other.code; });
        end = 0;
        put8(1);
        put8(0x1B);  // .eh_frame: 32 bits, relative to its place
        put8(0x03);  // count: 32 bits
        put8(0x3B);  // pairs: 32 bits, relative to the header
        put32(static_cast<std::uint32_t>(framesOffset - 4));
        put32(static_cast<std::uint32_t>(functions.size()));
        for (const Function& function : functions) {
            put32(function.code);
            put32(function.entry);
        }
    }

    std::uint64_t address(std::uint64_t offset = 0) const {
        return reinterpret_cast<std::uint64_t>(memory.data()) + offset;
    }

    platform::CodeModule module(bool isPermanent = true) const {
        return {.begin = address(),
                .size = moduleSize,
                .unwindHeader = address(),
                .identity = 4711,
                .isPermanent = isPermanent};
    }

    static constexpr std::size_t moduleSize = 1 << 16;
    static constexpr std::size_t framesOffset = 2048;

    Bytes memory;

 private:
    struct Function {
        std::uint32_t code;
        std::uint32_t entry;
    };

    std::size_t beginEntry() {
        const std::size_t entry = end;
        put32(0);
        return entry;
    }
    void endEntry(std::size_t entry) {
        while (end % 8 != 4) {
            put8(0);
        }
        const auto length = static_cast<std::uint32_t>(end - entry - 4);
        std::memcpy(&memory[entry], &length, sizeof(length));
    }
    void put8(std::uint8_t value) { memory.at(end++) = value; }
    void put32(std::uint32_t value) {
        std::memcpy(&memory.at(end), &value, sizeof(value));
        end += sizeof(value);
    }
    void putAll(const Bytes& bytes) {
        for (const std::uint8_t byte : bytes) {
            put8(byte);
        }
    }

    std::size_t end = framesOffset;
    std::vector<Function> functions;
};

/// def_cfa rsp+8; rip at -8: how every function starts.
inline const Bytes usualCieProgram = {0x0C, 7, 8, 0x90, 1};

}  // namespace ThreadUtilities::cfi
