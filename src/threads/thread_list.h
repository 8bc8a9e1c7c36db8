// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The threads of this process, kept by the system's notices of their starts and ends, and those
// of any process, asked for afresh.

#include <vector>

namespace ThreadUtilities {

/// The thread on which the library was loaded, or the only thread of a copied process.
unsigned int mainThread() noexcept;

/// The threads of this process: those found at load, then the later ones in the order of their
/// start notices. Where the notices do not cover all threads, the list is corrected by what the
/// system says at this moment; nothing of that is kept, so that no notice ever adds a thread twice.
std::vector<unsigned int> ownThreads();

/// The threads of any process; empty when there is no such process.
std::vector<unsigned int> enumerateProcessThreads(unsigned int processId);

}  // namespace ThreadUtilities
