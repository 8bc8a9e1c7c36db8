// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "waits/locks.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace ThreadUtilities::companion {
namespace {

// Bits of a mutex's kind, beside its four types.
constexpr int typeBits = 3;
constexpr int robustBit = 16;
constexpr int inheritBit = 32;
constexpr int protectBit = 64;
constexpr int sharedBit = 128;
constexpr int elisionBits = 256 | 512;
constexpr int kindBits = typeBits | robustBit | inheritBit | protectBit | sharedBit | elisionBits;

/// Where a thread's id stands in its own block; the same since version 2.4 of the C library.
constexpr std::uint64_t idInBlock = 0x2D0;
constexpr std::uint64_t selfInBlock = 0x10;

/// Whether what stands before it in the list leads to it. The lowest bit of a link is a mark.
bool isInList(const Target& target, std::uint64_t mutex, const __pthread_list_t& links) {
    const std::uint64_t own =
        mutex + offsetof(pthread_mutex_t, __data.__list) + offsetof(__pthread_list_t, __next);
    const auto before = reinterpret_cast<std::uint64_t>(links.__prev) & ~std::uint64_t{1};
    std::uint64_t next = 0;
    return target.read(before, next) && (next & ~std::uint64_t{1}) == own;
}

}  // namespace

std::optional<MutexContent> readMutex(const Target& target, std::uint64_t address) {
    pthread_mutex_t mutex = {};
    if (address % alignof(pthread_mutex_t) != 0 || !target.read(address, mutex)) {
        return std::nullopt;
    }
    const auto& data = mutex.__data;
    if ((data.__kind & ~kindBits) != 0 || data.__owner < 0) {
        return std::nullopt;
    }
    MutexContent content;
    content.isRobust = (data.__kind & robustBit) != 0;
    content.inheritsPriority = (data.__kind & inheritBit) != 0;
    content.isShared = (data.__kind & sharedBit) != 0;
    content.hasUsers = data.__nusers > 0;
    content.isListed = content.isRobust && isInList(target, address, data.__list);
    const auto word = static_cast<std::uint32_t>(data.__lock);
    if (content.isRobust || content.inheritsPriority) {
        // The owner beside it says "inconsistent" between the end of a holder and the repair.
        content.holder = word & holderOfWord;
    } else if ((data.__kind & protectBit) == 0 && word > 2) {
        return std::nullopt;
    } else if (word != 0) {
        content.holder = static_cast<unsigned int>(data.__owner);
    }
    return content;
}

std::optional<ReadWriteLockContent> readReadWriteLock(const Target& target, std::uint64_t address,
                                                      std::uint32_t value) {
    // Writers wait at one word, all that wait for the phase to change at another, and readers of a
    // lock that prefers writers at the first. The words before the last alternate by alignment;
    // the phase is 0 or 1, and a bit that somebody waits, where the first word counts by eights.
    using Layout = struct __pthread_rwlock_arch_t;
    constexpr std::uint32_t largestPhase = 3;
    std::size_t offset = 0;
    if (address % alignof(pthread_rwlock_t) != 0) {
        offset = offsetof(Layout, __writers_futex);
    } else if (value <= largestPhase) {
        offset = offsetof(Layout, __wrphase_futex);
    }
    pthread_rwlock_t lock = {};
    const std::uint64_t begin = address - offset;
    if (begin % alignof(pthread_rwlock_t) != 0 || !target.read(begin, lock) ||
        lock.__data.__cur_writer < 0) {
        return std::nullopt;
    }
    constexpr unsigned int readerShift = 3;
    return ReadWriteLockContent{begin, static_cast<unsigned int>(lock.__data.__cur_writer),
                                lock.__data.__readers >> readerShift, lock.__data.__shared != 0};
}

std::uint64_t conditionAt(std::uint64_t waitAddress) {
    constexpr std::uint64_t words = offsetof(struct __pthread_cond_s, __g_signals);
    const std::uint64_t first = waitAddress - words;
    return first % alignof(pthread_cond_t) == 0 ? first : first - sizeof(unsigned int);
}

unsigned int threadOfBlock(const Target& target, std::uint64_t address) {
    std::array<std::uint64_t, 3> block = {};
    std::uint32_t id = 0;
    static_assert(sizeof(block) == selfInBlock + sizeof(std::uint64_t));
    const bool isOne = address % alignof(std::uint64_t) == 0 && target.read(address, block) &&
                       block.front() == address && block.back() == address &&
                       target.read(address + idInBlock, id);
    return isOne ? id : 0;
}

unsigned int threadOfIdWord(const Target& target, std::uint64_t address) {
    return threadOfBlock(target, address - idInBlock);
}

}  // namespace ThreadUtilities::companion
