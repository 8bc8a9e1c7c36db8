// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The library's one source of random numbers.

#include <mutex>
#include <random>

namespace vesko {

/// A Mersenne Twister with a full-length seed from the system's random source, for any number of
/// threads.
class Generator {
 public:
    Generator();

    Generator(const Generator&) = delete;
    Generator& operator=(const Generator&) = delete;

    /// Every value of [lo, hi] with the same probability. Precondition: `lo <= hi`.
    int draw(int lo, int hi);

 private:
    std::mt19937 engine;
    std::mutex mutex;
};

/// A value of [lo, hi], each with the same probability, drawn from one generator that all threads
/// of the process share. With `randomSign` it is negated in half of the cases (the lowest `int` is
/// its own negation); not so when `lo == hi`, which draws nothing. Precondition: `lo <= hi`.
///
/// The first call seeds the generator. a fork child seeds one of its own: it would otherwise
/// repeat the numbers of its parent.
int randomInt(int lo, int hi, bool randomSign);

/// Every random integer of the library is drawn through this. Constant, so that static objects of
/// the host find it ready.
inline constinit decltype(&randomInt) randomIntHook = randomInt;

}  // namespace vesko
