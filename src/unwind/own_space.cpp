// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/own_space.h"

#include <cstddef>
#include <cstdint>

#include "platform/code_modules.h"
#include "platform/memory.h"
#include "unwind/scanned_tables.h"

namespace ThreadUtilities::cfi {

constinit const OwnSpace ownSpace;

std::size_t OwnSpace::read(std::uint64_t address, void* out, std::size_t size) const noexcept {
    return platform::readOwnMemory(address, out, size);
}

bool OwnSpace::findModule(std::uint64_t address, platform::CodeModule& module,
                          bool mayCallSystem) const noexcept {
    return platform::findCodeModule(address, module, mayCallSystem);
}

TableBytes OwnSpace::tablesAround(const platform::CodeModule& module,
                                  std::uint64_t address) const noexcept {
    return {platform::readableSegment(module, address)};
}

bool OwnSpace::isReadableNow(std::uint64_t address) const noexcept {
    return platform::isReadableNow(address);
}

std::uint64_t OwnSpace::scannedEntry(std::uint64_t address) const noexcept {
    return cfi::scannedEntry(address);
}

void OwnSpace::wantScan(std::uint64_t frames, std::uint64_t address) const noexcept {
    cfi::wantScan(frames, address);
}

}  // namespace ThreadUtilities::cfi
