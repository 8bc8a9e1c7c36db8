// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>

#include "unwind/address_space.h"

namespace ThreadUtilities::cfi {

enum class CallSite {
    Behind,      ///< a call instruction ends right before the address
    NotBehind,   ///< no form of it does
    Unreadable,  ///< the code cannot be read
};

/// Looks at the code before `address`, wherever that leads: through the space, so it never faults.
/// Context: target stopped, or signal handler; no allocation, no lock, no log.
CallSite callSiteAt(const AddressSpace& space, std::uint64_t address) noexcept;

/// Whether the instruction right before `address` is the one that enters the kernel. Reads as
/// `callSiteAt` does.
bool isBehindSystemCall(const AddressSpace& space, std::uint64_t address) noexcept;

/// A call and whom it calls.
struct CallTarget {
    CallSite site = CallSite::Unreadable;
    bool isNamed = false;  ///< else it goes through a register or data that may have changed since
    std::uint64_t target = 0;
};

/// The call that ends right before `address`. It names its target where it goes there directly or
/// through a linkage table, whose entry is followed (System V ABI, AMD64 supplement, 5.2).
/// Context: as `callSiteAt`.
CallTarget callBefore(const AddressSpace& space, std::uint64_t address) noexcept;

}  // namespace ThreadUtilities::cfi
