// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "symbols/windows_files.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <ios>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ThreadUtilities::companion {
namespace {

constexpr std::string_view pdbMark(
    "Microsoft C/C++ MSF 7.00\r\n\x1a"
    "DS\0\0\0",
    32);
constexpr std::uint16_t image64Bit = 0x20B;
constexpr std::uint32_t codeView = 2;
constexpr std::size_t longestName = 4096;

/// A file's numbers, little-endian, at any place. What lies outside of the file is 0 or empty.
class Bytes {
 public:
    explicit Bytes(const std::filesystem::path& path) : file(path, std::ios::binary) {}

    std::string text(std::uint64_t at, std::size_t size) {
        std::string result(size, '\0');
        file.clear();
        file.seekg(static_cast<std::streamoff>(at));
        file.read(result.data(), static_cast<std::streamsize>(size));
        result.resize(static_cast<std::size_t>(std::max<std::streamsize>(file.gcount(), 0)));
        return result;
    }
    template <typename Number>
    Number number(std::uint64_t at) {
        const std::string bytes = text(at, sizeof(Number));
        Number value = 0;
        for (std::size_t index = bytes.size(); index-- > 0;) {
            value = static_cast<Number>(value << 8 | static_cast<std::uint8_t>(bytes[index]));
        }
        return value;
    }

 private:
    std::ifstream file;
};

ModuleGuid guidOf(std::string_view bytes) {
    ModuleGuid guid = {};
    std::copy_n(bytes.begin(), std::min(bytes.size(), guid.size()), guid.begin());
    return guid;
}

struct Section {
    std::string name;
    std::uint32_t address = 0;
    std::uint32_t size = 0;
    std::uint32_t place = 0;
};

}  // namespace

std::optional<WindowsIdentity> identifyWindowsModule(const std::filesystem::path& file) {
    Bytes bytes(file);
    const auto header = bytes.number<std::uint32_t>(0x3C);
    if (bytes.text(0, 2) != "MZ" || bytes.text(header, 4) != std::string_view("PE\0\0", 4)) {
        return std::nullopt;
    }
    const auto sectionCount = bytes.number<std::uint16_t>(header + 6);
    const auto symbols = bytes.number<std::uint32_t>(header + 12);
    const auto symbolCount = bytes.number<std::uint32_t>(header + 16);
    const auto optionalSize = bytes.number<std::uint16_t>(header + 20);
    const std::uint64_t optional = header + std::uint64_t{24};
    const std::uint64_t strings = symbols + std::uint64_t{symbolCount} * 18;
    WindowsIdentity identity;
    std::vector<Section> sections;
    for (std::uint64_t index = 0; index < sectionCount; ++index) {
        const std::uint64_t at = optional + optionalSize + index * 40;
        Section section = {bytes.text(at, 8).c_str(), bytes.number<std::uint32_t>(at + 12),
                           bytes.number<std::uint32_t>(at + 16),
                           bytes.number<std::uint32_t>(at + 20)};
        if (section.name.starts_with('/') && symbols != 0) {
            const auto offset = std::strtoul(section.name.c_str() + 1, nullptr, 10);
            section.name = bytes.text(strings + offset, 16).c_str();
        }
        identity.hasDwarf = identity.hasDwarf || section.name == ".debug_info";
        sections.push_back(section);
    }
    const bool is64Bit = bytes.number<std::uint16_t>(optional) == image64Bit;
    const std::uint64_t directory = optional + (is64Bit ? 112 : 96) + 6 * std::uint64_t{8};
    const auto address = bytes.number<std::uint32_t>(directory);
    const auto size = bytes.number<std::uint32_t>(directory + 4);
    for (const Section& section : sections) {
        if (address < section.address || address - section.address >= section.size) {
            continue;
        }
        const std::uint64_t begin = section.place + std::uint64_t{address} - section.address;
        for (std::uint64_t at = begin; at + 28 <= begin + std::min<std::uint32_t>(size, 28 * 64);
             at += 28) {
            const auto record = bytes.number<std::uint32_t>(at + 24);
            if (bytes.number<std::uint32_t>(at + 12) == codeView &&
                bytes.text(record, 4) == "RSDS") {
                identity.guid = guidOf(bytes.text(record + std::uint64_t{4}, 16));
                identity.pdb = bytes.text(record + std::uint64_t{24}, longestName).c_str();
                return identity;
            }
        }
    }
    return std::nullopt;
}

std::optional<ModuleGuid> guidOfPdb(const std::filesystem::path& file) {
    Bytes bytes(file);
    if (bytes.text(0, pdbMark.size()) != pdbMark) {
        return std::nullopt;
    }
    const std::uint64_t blockSize = bytes.number<std::uint32_t>(32);
    const std::uint64_t directorySize = bytes.number<std::uint32_t>(44);
    const std::uint64_t directoryMap = bytes.number<std::uint32_t>(52) * blockSize;
    if (blockSize == 0) {
        return std::nullopt;
    }
    // The directory: the number of streams, their sizes, then the blocks of each.
    const auto word = [&](std::uint64_t index) -> std::uint64_t {
        const std::uint64_t at = index * 4;
        if (at >= directorySize) {
            return 0;
        }
        const auto block = bytes.number<std::uint32_t>(directoryMap + at / blockSize * 4);
        return bytes.number<std::uint32_t>(block * blockSize + at % blockSize);
    };
    constexpr std::uint64_t noStream = 0xFFFFFFFF;
    const std::uint64_t streamCount = word(0);
    const std::uint64_t firstSize = word(1) == noStream ? 0 : word(1);
    // Stream 1 is about the PDB itself: version, signature, age, GUID.
    const std::uint64_t block = word(1 + streamCount + (firstSize + blockSize - 1) / blockSize);
    const std::string guid = bytes.text(block * blockSize + 12, 16);
    return block != 0 && guid.size() == 16 ? std::optional(guidOf(guid)) : std::nullopt;
}

}  // namespace ThreadUtilities::companion
