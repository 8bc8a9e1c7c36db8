#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "stack/cfi/compiled_rule.h"

namespace ThreadUtilities::cfi {

/// Compiled rules by code address, shared by all threads and their signal handlers. Lossy: an
/// address has one slot, and whoever comes later takes it.
///
/// *Torn entries.* An entry is two words that are written one after the other while others read
/// them. The second word is the sum of one hash of key and identity and one of the first word's
/// rule, therefore two words of different writers match with a chance of 2^-64 or so, and a
/// mismatch is just an entry that is not there.
///
/// *Stale entries.* The identity of the module is part of what an entry must match, and walkers
/// get it from the module that covers the address at that moment. Because no two modules that may
/// follow each other at one place have the same identity, an entry of an unloaded module matches
/// no walk through its successor: nothing needs to be told of loads and unloads. A module cannot
/// be replaced between the identity and the match, since the walked thread has a frame in it and
/// stands still.
///
/// *Prediction.* The first word also names the slot of the address that followed last time, the
/// caller. A walk goes on there without computing a hash; whether it is the right entry is decided
/// by the match alone, therefore a wrong or torn prediction costs time and nothing else.
class RuleCache {
 public:
    using Slot = std::uint32_t;

    /// What must match: one address in one module.
    struct Key {
        std::uint64_t address;
        std::uint64_t identity;
    };

    static Slot slotOf(std::uint64_t address) noexcept {
        return static_cast<Slot>(address * spread >> (64 - slotBits));
    }

    /// What stands in `slot`, if it is the entry of `key`; `next` becomes the slot it predicts.
    /// Else an empty rule, and `next` as it was.
    CompiledRule find(Slot slot, Key key, Slot& next) const noexcept {
        const Entry& entry = entries[slot];
        const std::uint64_t ruleAndNext = entry.ruleAndNext.load(std::memory_order_relaxed);
        const CompiledRule rule = CompiledRule::fromBits(ruleAndNext);
        if (entry.check.load(std::memory_order_relaxed) != checkOf(rule, key)) {
            return {};
        }
        next = static_cast<Slot>(ruleAndNext >> CompiledRule::usedBits);
        return rule;
    }

    void store(Slot slot, Key key, CompiledRule rule) noexcept {
        entries[slot].ruleAndNext.store(rule.toBits(), std::memory_order_relaxed);
        entries[slot].check.store(checkOf(rule, key), std::memory_order_relaxed);
    }

    /// Names `next` as what follows the entry in `slot`, which may be another one by now.
    void predict(Slot slot, Slot next) noexcept {
        const std::uint64_t rule =
            CompiledRule::fromBits(entries[slot].ruleAndNext.load(std::memory_order_relaxed))
                .toBits();
        entries[slot].ruleAndNext.store(rule | std::uint64_t{next} << CompiledRule::usedBits,
                                        std::memory_order_relaxed);
    }

 private:
    static constexpr unsigned slotBits = 64 - CompiledRule::usedBits;
    static constexpr std::uint64_t spread = 0x9E3779B97F4A7C15;  // 2^64 divided by the golden ratio
    static constexpr std::uint64_t ruleSpread = 0xD6E8FEB86659FD93;

    struct alignas(16) Entry {
        std::atomic<std::uint64_t> ruleAndNext{0};
        std::atomic<std::uint64_t> check{0};
    };

    static std::uint64_t checkOf(CompiledRule rule, Key key) noexcept {
        return key.address * spread + key.identity + rule.toBits() * ruleSpread;
    }

    Entry entries[std::size_t{1} << slotBits];
};

}  // namespace ThreadUtilities::cfi
