// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "unwind/compiled_rule.h"

namespace ThreadUtilities::cfi {

/// Compiled rules by code address, shared by all threads and their signal handlers. Lossy: the
/// latest entry takes the place of the oldest.
///
/// *Order.* Entries stand in the order in which they were stored, that is, those of one stack
/// beside each other, so that a walk reads a few cache lines in sequence. An index of the latest
/// four entries for each hash of an address leads to the rest.
///
/// *Torn entries.* The rule and the word beside it are written one after the other while others
/// read them, and both must add up to the key. Halves of two writers do so only if their keys
/// differ by just what their rules differ by, which is a multiple of 2^32. Keys of one module do
/// not, because its addresses are closer together. Keys of two modules do with a chance of 2^-32,
/// and only in a reader that comes between the two writes, where the one entry takes the other's
/// place. A sum that is wrong is just a cache miss.
///
/// *Stale entries.* The identity of the module, a 64-bit hash, is part of what an entry must match,
/// and walkers get it from the module that covers the address at that moment. Because no two
/// modules that may follow each other at one place have the same identity, an entry of an unloaded
/// module matches no walk through its successor: nothing needs to be told of loads and unloads. A
/// module cannot be replaced between the identity and the match, since the walked thread has a
/// frame in it and is stopped; where it is not stopped, what the walk finds is not relied
/// on.
///
/// *Prediction.* An entry also names the slot of the address that followed last time, the caller. A
/// walk goes on there without computing a hash; whether it is the right entry is decided by the
/// match alone, therefore a wrong prediction, or that of another entry, costs time and nothing
/// else.
class RuleCache {
 public:
    /// Distance of an entry from the first, in bytes.
    using Slot = std::uint64_t;
    static constexpr Slot noSlot = ~Slot{0};

    /// What must match: one address in one module.
    struct Key {
        std::uint64_t address;
        std::uint64_t identity;
    };

    /// The identity of no module: no entry is stored under it. Not 0, for an empty entry is all
    /// zeros and so adds up to the key of address 0 there; with this one it adds up to an address
    /// that no processor of today accepts.
    static constexpr std::uint64_t noIdentity = 0xA0761D6478BD642F;

    /// Whether `slot` holds the entry of `key`. Then `rule` is its rule, and `next` the slot that
    /// it predicts; else both are worthless.
    bool find(Slot slot, Key key, CompiledRule& rule, Slot& next) const noexcept {
        const Entry& entry = at(slot);
        rule = CompiledRule::fromBits(entry.rule.load(std::memory_order_relaxed));
        next = entry.next.load(std::memory_order_relaxed);
        return entry.complement.load(std::memory_order_relaxed) + summand(rule) == sumOf(key);
    }

    /// The same for whichever slot the index knows for the address; `slot` becomes that slot.
    bool search(Key key, CompiledRule& rule, Slot& slot, Slot& next) const noexcept {
        std::uint64_t slots = indexOf(key.address).load(std::memory_order_relaxed);
        for (; slots != 0; slots >>= indexBits) {
            slot = slots % entryCount * sizeof(Entry);
            if (find(slot, key, rule, next)) {
                return true;
            }
        }
        return false;
    }

    /// Where the latest entry of an address that hashes alike stands, a place to begin at.
    Slot latest(std::uint64_t address) const noexcept {
        return (indexOf(address).load(std::memory_order_relaxed) % entryCount) * sizeof(Entry);
    }

    /// Returns the slot of the entry.
    Slot store(Key key, CompiledRule rule) noexcept {
        const std::uint64_t number = entriesStored.fetch_add(1, std::memory_order_relaxed) + 1;
        const std::uint64_t place = number % entryCount;
        entries[place].rule.store(rule.toBits(), std::memory_order_relaxed);
        entries[place].complement.store(sumOf(key) - summand(rule), std::memory_order_relaxed);
        std::atomic<std::uint64_t>& slots = indexOf(key.address);
        slots.store(slots.load(std::memory_order_relaxed) << indexBits | place,
                    std::memory_order_relaxed);
        return place * sizeof(Entry);
    }

    /// Names `next` as what follows the entry in `slot`, which may be another one by now.
    void predict(Slot slot, Slot next) noexcept {
        entries[slot / sizeof(Entry)].next.store(static_cast<std::uint32_t>(next),
                                                 std::memory_order_relaxed);
    }

 private:
    struct alignas(16) Entry {
        std::atomic<std::uint32_t> next{0};
        std::atomic<std::uint32_t> rule{0};
        std::atomic<std::uint64_t> complement{0};  ///< the sum of the key minus that of the rule
    };

    static constexpr std::uint64_t entryCount = std::uint64_t{1} << 14;

    /// Each word of the index holds four numbers of entries, the latest lowest. A number 0 stands
    /// for nothing, as far as the search for higher ones goes; its entry is reached by prediction.
    static constexpr unsigned indexBits = 16;
    static constexpr unsigned hashBits = 12;
    static_assert(entryCount <= std::uint64_t{1} << indexBits);

    static constexpr std::uint64_t spread = 0x9E3779B97F4A7C15;  // 2^64 divided by the golden ratio

    static std::uint64_t sumOf(Key key) noexcept { return key.address + key.identity; }
    static std::uint64_t summand(CompiledRule rule) noexcept {
        return std::uint64_t{rule.toBits()} << 32;
    }

    /// Without the division and multiplication that a subscript would take.
    const Entry& at(Slot slot) const noexcept {
        return *reinterpret_cast<const Entry*>(reinterpret_cast<const char*>(entries) + slot);
    }

    std::atomic<std::uint64_t>& indexOf(std::uint64_t address) noexcept {
        return index[address * spread >> (64 - hashBits)];
    }
    const std::atomic<std::uint64_t>& indexOf(std::uint64_t address) const noexcept {
        return index[address * spread >> (64 - hashBits)];
    }

    alignas(64) Entry entries[entryCount];
    alignas(64) std::atomic<std::uint64_t> index[std::size_t{1} << hashBits];
    alignas(64) std::atomic<std::uint64_t> entriesStored{0};
};

}  // namespace ThreadUtilities::cfi
