// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>

namespace ThreadUtilities::cfi {

// Tables of this process that come without a search index are looked through entry by entry. While
// a thread stands still that is done for a few entries only; what they do not cover is noted,
// looked for outside, and found by its place from then on.

/// Where the entry stands that covers `address`, or `noEntry`, as far as that has been looked for;
/// 0 when it has not. It may be of a module that was there before: whoever reads the entry finds
/// out. Context: target stopped, or signal handler; no allocation, no lock, no log.
std::uint64_t scannedEntry(std::uint64_t address) noexcept;

/// Notes that the entry for `address` in the table at `frames` is to be looked for.
/// Context: as `scannedEntry`.
void wantScan(std::uint64_t frames, std::uint64_t address) noexcept;

/// Looks for the entry that was noted last; false when there is none, or it is not found. Nearly
/// free when nothing was noted, else up to a tenth of a second: not while a thread is stopped.
/// No allocation, no lock.
bool scanWanted() noexcept;

}  // namespace ThreadUtilities::cfi
