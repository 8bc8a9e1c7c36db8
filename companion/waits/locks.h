// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// The C library's locks as they lie in memory: the GNU C library's, of x86-64. Their headers
/// declare the layouts, but for that of a thread's own block.

#include <pthread.h>

#include <cstdint>
#include <optional>
#include <string>

#include "process/target.h"

namespace ThreadUtilities::companion {

/// A word of a robust or priority-inheriting mutex, which the kernel knows too (futex(2)).
constexpr std::uint32_t holderOfWord = 0x3FFFFFFF;
constexpr std::uint32_t hasWaiters = 0x80000000;

struct MutexContent {
    /// As the process numbers its threads; 0 for nobody.
    unsigned int holder = 0;
    bool isRobust = false;
    bool inheritsPriority = false;
    bool isShared = false;
    /// Counts those that hold it or wait for it.
    bool hasUsers = false;
    /// Stands in a list of robust mutexes that this process can see, as such a mutex does while a
    /// thread holds it.
    bool isListed = false;
};

/// Nothing where what lies there is no mutex, or one that cannot be waited for.
std::optional<MutexContent> readMutex(const Target& target, std::uint64_t address);

struct ReadWriteLockContent {
    std::uint64_t address = 0;
    unsigned int writer = 0;
    unsigned int readers = 0;
    bool isShared = false;
};

/// From the address and the value that a thread waits at.
std::optional<ReadWriteLockContent> readReadWriteLock(const Target& target, std::uint64_t address,
                                                      std::uint32_t value);

/// Of the condition variable one of whose two words a thread waits at.
std::uint64_t conditionAt(std::uint64_t waitAddress);

/// The thread whose own block lies at the address; 0 where there is none. Proven by the two
/// pointers to itself that each block has (the first for the compilers' `%fs:0`), so that no other
/// memory is taken for one.
unsigned int threadOfBlock(const Target& target, std::uint64_t address);

/// The same from the address of the word that the kernel clears at the thread's end.
unsigned int threadOfIdWord(const Target& target, std::uint64_t address);

}  // namespace ThreadUtilities::companion
