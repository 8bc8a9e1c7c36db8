// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "unwind/address_space.h"

namespace ThreadUtilities::process {

/// Reads bytes of a module by their addresses in its process; returns how many from the front.
using ImageBytes = std::function<std::size_t(std::uint64_t address, std::span<std::uint8_t> out)>;

/// A stretch of addresses.
struct AddressRange {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
};

/// The unwind tables of one module of another process, copied: `.eh_frame` and an index of it,
/// which is made where the module has none that the unwinder can search (LSB 5.0, 10.6).
class UnwindTables {
 public:
    /// None.
    UnwindTables() = default;

    /// The tables that the index at `header` leads to, of which nothing lies beyond `limit`.
    UnwindTables(const ImageBytes& image, std::uint64_t header, std::uint64_t limit);

    /// Tables that have no index, as far as an end mark or the end of the range.
    UnwindTables(const ImageBytes& image, AddressRange frames);

    /// What the unwinder takes for the address of the index; 0 when there are no tables.
    std::uint64_t header() const noexcept { return index.empty() ? 0 : indexAddress; }

    /// As `cfi::AddressSpace::tablesAround`.
    cfi::TableBytes around(std::uint64_t address) const noexcept;

 private:
    void makeIndex();

    std::uint64_t indexAddress = 0;
    std::vector<std::uint8_t> index;
    std::uint64_t frameAddress = 0;
    std::vector<std::uint8_t> frames;
};

}  // namespace ThreadUtilities::process
