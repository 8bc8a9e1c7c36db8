// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "scripted_platform/memory_script.h"

#include <algorithm>
#include <cstring>

#include "platform/memory.h"

namespace ThreadUtilities {

std::vector<std::uint8_t> scripted::bytesOf(const std::vector<std::uint64_t>& words) {
    std::vector<std::uint8_t> bytes(words.size() * sizeof(std::uint64_t));
    std::memcpy(bytes.data(), words.data(), bytes.size());
    return bytes;
}

namespace platform {

std::size_t readOwnMemory(std::uint64_t address, void* out, std::size_t size) noexcept {
    ++scripted::memoryQuestions;
    auto after = scripted::memory.upper_bound(address);
    if (after == scripted::memory.begin()) {
        return 0;
    }
    const auto& [begin, bytes] = *--after;
    const std::uint64_t offset = address - begin;
    if (offset >= bytes.size()) {
        return 0;
    }
    const std::size_t available = std::min<std::size_t>(size, bytes.size() - offset);
    std::memcpy(out, bytes.data() + offset, available);
    return available;
}

bool isReadableNow(std::uint64_t address) noexcept {
    std::uint64_t word = 0;
    return readOwnMemory(address, &word, sizeof(word)) == sizeof(word);
}

void prepareModuleLookup() noexcept {}

bool findCodeModule(std::uint64_t address, CodeModule& module, bool) noexcept {
    for (const CodeModule& known : scripted::codeModules) {
        if (address - known.begin < known.size) {
            module = known;
            return true;
        }
    }
    return false;
}

// Every module of a script can be replaced by another.
std::uint64_t permanentIdentity() noexcept {
    return 0;
}

ReadableRange readableSegment(const CodeModule& module, std::uint64_t address) noexcept {
    return address - module.begin < module.size
               ? ReadableRange{module.begin, module.begin + module.size}
               : ReadableRange{};
}

std::vector<LoadedModule> listModules(unsigned int processId) {
    ++scripted::moduleListings;
    return scripted::processModules[processId].modules;
}

std::optional<ModuleListVersion> moduleListVersion(unsigned int processId) noexcept {
    return scripted::processModules[processId].version;
}

bool isModulePathSeparator(WideChar unit) noexcept {
    return unit == u'/' || unit == u'\\';
}

}  // namespace platform
}  // namespace ThreadUtilities
