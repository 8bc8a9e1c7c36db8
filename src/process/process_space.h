// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "process/module_list.h"
#include "unwind/address_space.h"

namespace ThreadUtilities::process {

/// Another process as one walk sees it, and what that walk came upon.
class ProcessSpace final : public cfi::AddressSpace {
 public:
    explicit ProcessSpace(const ModuleList& moduleList) noexcept : list(moduleList) {}

    std::size_t read(std::uint64_t address, void* out, std::size_t size) const noexcept override;
    bool findModule(std::uint64_t address, platform::CodeModule& module,
                    bool mayCallSystem) const noexcept override;
    cfi::TableBytes tablesAround(const platform::CodeModule& module,
                                 std::uint64_t address) const noexcept override;

    /// Whether an address was looked up that lies in no module.
    bool hasMissed() const noexcept { return missed; }

    /// The modules that were asked for; of a walk through very many, the first ones.
    std::span<const ProcessModule* const> visited() const noexcept {
        return std::span(modules).first(count);
    }

 private:
    void note(const ProcessModule* module) const noexcept;

    const ModuleList& list;
    mutable std::array<const ProcessModule*, 64> modules;
    mutable std::size_t count = 0;
    mutable std::uint64_t providedPage = 0;  ///< has contents
    mutable bool missed = false;
};

}  // namespace ThreadUtilities::process
