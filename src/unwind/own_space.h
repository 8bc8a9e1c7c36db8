// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstdint>

#include "unwind/address_space.h"

namespace ThreadUtilities::cfi {

/// This process.
/// Context: target stopped, or signal handler; no allocation, no lock, no log.
class OwnSpace final : public AddressSpace {
 public:
    constexpr OwnSpace() noexcept = default;

    std::size_t read(std::uint64_t address, void* out, std::size_t size) const noexcept override;
    bool findModule(std::uint64_t address, platform::CodeModule& module,
                    bool mayCallSystem) const noexcept override;
    TableBytes tablesAround(const platform::CodeModule& module,
                            std::uint64_t address) const noexcept override;
    bool isReadableNow(std::uint64_t address) const noexcept override;
    std::uint64_t scannedEntry(std::uint64_t address) const noexcept override;
    void wantScan(std::uint64_t frames, std::uint64_t address) const noexcept override;
};

extern const OwnSpace ownSpace;

}  // namespace ThreadUtilities::cfi
