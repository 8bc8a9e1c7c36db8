// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "linux/descriptor.h"
#include "linux/modules/mapped_images.h"
#include "linux/modules/process_map.h"
#include "process/unwind_tables.h"

namespace ThreadUtilities::process {

/// The file that a module was loaded from, if it still is what was loaded as far as its program
/// headers tell. Read a piece at a time; nothing is mapped.
class ModuleFile {
 public:
    /// `headers` are those of the image in memory.
    ModuleFile(pid_t task, const platform::MappedRange& range,
               const platform::ImageHeaders& headers);

    bool isOpen() const noexcept { return file.isOpen(); }

    /// Where `.eh_frame` lies, in the addresses of the program headers. What no program header
    /// names, the section headers know, which are not loaded.
    std::optional<AddressRange> frames() const;

    /// Bytes by the addresses of the program headers.
    std::size_t read(std::uint64_t address, std::span<std::uint8_t> out) const noexcept;

 private:
    platform::Descriptor file;
    const platform::ImageHeaders& programHeaders;
};

}  // namespace ThreadUtilities::process
