// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <elf.h>
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "linux/descriptor.h"
#include "linux/modules/mapped_images.h"
#include "process/process_module.h"
#include "process/unwind_tables.h"

namespace ThreadUtilities::process {

/// The memory map of a process and its modules, as they were at one moment. Does not change.
class ModuleList {
 public:
    /// Reads the map. Modules of `before` that are still there are taken over, with their tables;
    /// the others get identities from `lastIdentity` on, which is counted up.
    ModuleList(unsigned int processId, const ModuleList* before, std::uint64_t& lastIdentity);

    /// A thread that still has the process's memory; 0 when the process has none, or shows none.
    pid_t task() const noexcept { return liveTask; }

    /// The descriptor of its file "pagemap", or negative.
    int pageMap() const noexcept { return pages.get(); }

    /// The module that covers an address; none when there is none.
    const ProcessModule* find(std::uint64_t address) const noexcept;

    /// Where the mapping ends that covers an address; 0 when there is none.
    std::uint64_t mappingEnd(std::uint64_t address) const noexcept;

    /// Whether a walk finds the same in both.
    bool isLike(const ModuleList& other) const noexcept {
        return liveTask == other.liveTask && modules == other.modules;
    }

    /// Whether the thread still has the process's memory.
    bool showsMemory() const noexcept;

    /// Whether the first file that is mapped is a program or library of 32 bits.
    bool isOf32Bits() const noexcept;

 private:
    std::array<char, EI_CLASS + 1> startOfFirstFile() const noexcept;

    /// The module, if it is the one that begins the image and still what it was.
    std::shared_ptr<const ProcessModule> takeOver(
        pid_t task, const platform::MappedImage& image) const noexcept;

    pid_t liveTask = 0;
    platform::Descriptor pages;
    std::vector<AddressRange> mappings;
    std::uint64_t firstFile = 0;                                ///< where it is mapped
    std::vector<std::shared_ptr<const ProcessModule>> modules;  ///< in order of address
};

/// Whether all of these modules are still what they were. One system call for most walks.
bool areUnchanged(pid_t task, std::span<const ProcessModule* const> modules) noexcept;

}  // namespace ThreadUtilities::process
