// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/scanned_tables.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "unwind/address_space.h"
#include "unwind/eh_frame.h"
#include "unwind/own_space.h"

namespace ThreadUtilities::cfi {
namespace {

// The words of a place are written and read one by one. Halves of two places name an entry that
// does not cover the address, which its reader sees, or one that does.
struct Place {
    std::atomic<std::uint64_t> codeBegin{0};
    std::atomic<std::uint64_t> codeEnd{0};
    std::atomic<std::uint64_t> entry{0};
};

constinit std::array<Place, 256> places{};
constinit std::atomic<std::size_t> placesFound{0};

// Two words as well: an address in another table is not found there.
constinit std::atomic<std::uint64_t> wantedAddress{0};
constinit std::atomic<std::uint64_t> wantedTable{0};

void learn(std::uint64_t codeBegin, std::uint64_t codeEnd, std::uint64_t entry) noexcept {
    const std::size_t number = placesFound.fetch_add(1, std::memory_order_relaxed);
    Place& place = places[number % places.size()];
    place.codeEnd.store(0, std::memory_order_relaxed);
    place.entry.store(entry, std::memory_order_relaxed);
    place.codeBegin.store(codeBegin, std::memory_order_relaxed);
    place.codeEnd.store(codeEnd, std::memory_order_release);
}

// Not inlined: the room for copies is needed by none but this.
[[gnu::noinline]] bool scan(std::uint64_t frames, std::uint64_t address) noexcept {
    TableCopies copies;
    Fde fde;
    std::uint64_t entry = 0;
    if (scanEntries(TableReader(ownSpace, copies), frames, address, maxScannedEntries, fde,
                    entry) != LookupResult::Found) {
        learn(address, address + 1, noEntry);
        return false;
    }
    learn(fde.codeBegin, fde.codeEnd, entry);
    return true;
}

}  // namespace

std::uint64_t scannedEntry(std::uint64_t address) noexcept {
    if (placesFound.load(std::memory_order_acquire) == 0) {
        return 0;
    }
    for (const Place& place : places) {
        if (place.codeBegin.load(std::memory_order_relaxed) <= address &&
            address < place.codeEnd.load(std::memory_order_relaxed)) {
            return place.entry.load(std::memory_order_relaxed);
        }
    }
    return 0;
}

void wantScan(std::uint64_t frames, std::uint64_t address) noexcept {
    wantedTable.store(frames, std::memory_order_relaxed);
    wantedAddress.store(address, std::memory_order_release);
}

bool scanWanted() noexcept {
    if (wantedAddress.load(std::memory_order_relaxed) == 0) [[likely]] {
        return false;
    }
    const std::uint64_t address = wantedAddress.exchange(0, std::memory_order_acquire);
    return address != 0 && scan(wantedTable.load(std::memory_order_relaxed), address);
}

}  // namespace ThreadUtilities::cfi
