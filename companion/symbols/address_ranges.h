// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Ranges of code, each with the index of what stands there.

#include <algorithm>
#include <cstdint>
#include <vector>

namespace ThreadUtilities::companion {

struct AddressRange {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    std::uint32_t index = 0;
};
using AddressRanges = std::vector<AddressRange>;

/// By their beginnings; of ranges with one beginning, in the order in which they were found.
inline void sortRanges(AddressRanges& ranges) {
    std::sort(
        ranges.begin(), ranges.end(), [](const AddressRange& left, const AddressRange& right) {
            return left.begin != right.begin ? left.begin < right.begin : left.index < right.index;
        });
}

/// Precondition: sorted. The last, that is innermost, range with the address.
inline const AddressRange* findRange(const AddressRanges& ranges, std::uint64_t address) {
    auto range = std::upper_bound(
        ranges.begin(), ranges.end(), address,
        [](std::uint64_t value, const AddressRange& other) { return value < other.begin; });
    // Ranges inside of each other are few, except in a function, where none is asked for this way.
    for (int tries = 0; range != ranges.begin() && tries < 64; ++tries) {
        --range;
        if (address < range->end) {
            return &*range;
        }
    }
    return nullptr;
}

}  // namespace ThreadUtilities::companion
