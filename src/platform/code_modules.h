// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The loaded modules as the library's own unwinder sees them. A system whose own unwinder is used
// defines nothing of this.

#include <cstdint>

#include "platform/memory.h"

namespace ThreadUtilities::platform {

/// The module that covers a code address.
struct CodeModule {
    std::uint64_t begin = 0;  ///< lowest mapped address
    std::uint64_t size = 0;   ///< bytes up to the end of the highest mapping
    /// Address of the module's unwind table index (LSB, `.eh_frame_hdr`); 0 when it has none.
    std::uint64_t unwindHeader = 0;
    /// Tells the module from every other one that may take its place in memory once it has been
    /// unloaded, however alike the loader's records of the two are. 0 when the module carries
    /// nothing that could prove that: what is known of its code must not be kept beyond one walk.
    /// Modules that stay to the end of the process may share one identity.
    std::uint64_t identity = 0;
    bool isPermanent = false;         ///< stays loaded to the end of the process
    bool withoutSystemCalls = false;  ///< as the lookup was told; holds for what follows from it
    /// The readable part of the image around the unwind header; empty when it is not known yet.
    ReadableRange tables{};
};

/// Brings up to date what the lookups need where the system has no lookup of its own that takes no
/// lock; there it takes the loader's lock for its list, which no code of a module runs under. Does
/// nothing elsewhere. Never while a thread is stopped.
void prepareModuleLookup() noexcept;

/// Finds the module that covers `address`; false when there is none. Never faults. Without
/// `mayCallSystem` no system call is made; then only permanent modules have an identity.
/// Context: target stopped, or signal handler; no allocation, no lock, no log.
bool findCodeModule(std::uint64_t address, CodeModule& module, bool mayCallSystem = true) noexcept;

/// The identity that modules share which stay to the end of the process; 0 as long as no lookup
/// gives it, which is before the library's own constructors. The library's own code has it whenever
/// it is not 0. Context: as `findCodeModule`.
std::uint64_t permanentIdentity() noexcept;

/// The stretch of the module's image around `address` that can be read without a fault for as
/// long as the module is loaded, which it is now; empty when there is none.
/// Context: as `findCodeModule`.
ReadableRange readableSegment(const CodeModule& module, std::uint64_t address) noexcept;

}  // namespace ThreadUtilities::platform
