// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/modules.h"
#include "platform/text.h"

namespace ThreadUtilities {

/// Where a module is loaded.
struct ModuleInfo {
    std::uint64_t lpBaseOfDll = 0;
    std::uint64_t SizeOfImage = 0;  ///< bytes; modules of more than 4 GiB exist on Linux
};

/// One loaded module; empty, with no `moduleInfo`, where none was found.
struct ModuleRecord {
    WideString path;
    WideString pdbGuid;  ///< 36 characters in upper case; the nil GUID's text where it has none
    /// Shared between the list and all copies: it outlives a renewal of the list.
    std::shared_ptr<const ModuleInfo> moduleInfo;
};

/// Knows which module of a process contains an address. Keeps the modules of one process at a
/// time and renews the list when it is asked for another process or does not know the address.
///
/// Any thread may look up; lookups wait for each other. They allocate, and for the calling
/// process they take the loader's lock for its list: not to be called while a thread that may
/// hold that lock or the heap's is stopped, nor from a callback of the loader's list walk.
class ModuleManager {
 public:
    /// The one manager of the library, made on the first call.
    static std::shared_ptr<ModuleManager> getInstance();

    /// The module of process `processId` that contains `address`. An address at the very start
    /// of a module does not count as inside it. A module that was unloaded is still found until
    /// the next renewal.
    ModuleRecord findModule(unsigned int processId, unsigned long long address);

 private:
    void refresh(unsigned int forProcess);
    bool findCached(unsigned long long address, ModuleRecord& out) const;

    std::mutex mutex;
    std::vector<ModuleRecord> modules;
    unsigned int processId = 0;
    /// The state of the process's modules that `modules` shows; none when it may be outdated.
    std::optional<platform::ModuleListVersion> version;
};

}  // namespace ThreadUtilities
