// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/code_modules.h"
#include "platform/memory.h"

namespace ThreadUtilities::cfi {

/// Where an entry of a table would stand: none covers the address.
inline constexpr std::uint64_t noEntry = ~std::uint64_t{0};

/// Bytes of a module's tables that can be read with a plain load, for as long as the walk has a
/// frame in the module.
struct TableBytes {
    platform::ReadableRange range;  ///< in addresses of the space; empty when there are none
    std::uint64_t shift = 0;        ///< what to add to an address (modulo 2^64) to find its byte
};

/// The memory and the modules that a walk goes through: of this process, or of another one. Asked
/// for what cached rules do not know, hence seldom.
/// Context: what walks threads that are stopped, or in signal handlers, calls this as they may.
class AddressSpace {
 public:
    AddressSpace(const AddressSpace&) = delete;
    AddressSpace& operator=(const AddressSpace&) = delete;

    /// As `platform::readOwnMemory`.
    virtual std::size_t read(std::uint64_t address, void* out, std::size_t size) const noexcept = 0;

    /// As `platform::findCodeModule`. `isPermanent` says here that `tablesAround` stay as they are
    /// for as long as the walk takes.
    virtual bool findModule(std::uint64_t address, platform::CodeModule& module,
                            bool mayCallSystem) const noexcept = 0;

    /// As `platform::readableSegment`.
    virtual TableBytes tablesAround(const platform::CodeModule& module,
                                    std::uint64_t address) const noexcept = 0;

    /// As `platform::isReadableNow`; asked only where a stack is read in place.
    virtual bool isReadableNow(std::uint64_t) const noexcept { return false; }

    /// As `cfi::scannedEntry`, of tables without an index; 0 in a space that has none of these.
    virtual std::uint64_t scannedEntry(std::uint64_t) const noexcept { return 0; }

    /// As `cfi::wantScan`.
    virtual void wantScan(std::uint64_t, std::uint64_t) const noexcept {}

 protected:
    constexpr AddressSpace() noexcept = default;
    ~AddressSpace() = default;
};

}  // namespace ThreadUtilities::cfi
