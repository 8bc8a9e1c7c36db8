// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "linux/modules/mapped_images.h"
#include "process/unwind_tables.h"

namespace ThreadUtilities::process {

/// Bytes that a module has in memory, and another in its place would not have.
struct Witness {
    std::uint64_t address = 0;
    std::vector<std::uint8_t> bytes;
};

/// One module of another process, as it was when it was found. Any number of threads at once.
class ProcessModule {
 public:
    /// `moduleIdentity` is no other module's.
    ProcessModule(pid_t task, const platform::MappedImage& image,
                  const platform::ImageReader& reader, std::uint64_t moduleIdentity);

    std::uint64_t begin() const noexcept { return imageBegin; }
    std::uint64_t size() const noexcept { return imageSize; }
    std::uint64_t identity() const noexcept { return moduleIdentity; }

    /// Its build-id, and the end of its unwind tables' index, because an id may have been set by
    /// hand. Empty where nothing can be read.
    std::span<const Witness> witnesses() const noexcept { return proofs; }

    /// Whether the map shows the same file at the same place.
    bool isAt(const platform::MappedImage& image) const noexcept;

    /// The module's unwind tables, which are read when they are first asked for: from the module's
    /// file where it carries the build-id that is in memory, else from the memory. None when there
    /// is no memory for them here. `task` is one that has the process's memory. The first time
    /// takes up to some milliseconds.
    const UnwindTables* tables(pid_t task) const noexcept;

 private:
    void noteBuildId(const platform::ImageReader& reader);
    void noteIndex(pid_t task);
    bool isSame(const ImageBytes& image) const;
    UnwindTables readTables(pid_t task) const;
    std::uint64_t addressInMemory(std::uint64_t address) const noexcept;

    platform::MappedRange range;  ///< the first; its name is `fileName`
    std::string fileName;
    std::uint64_t imageBegin;
    std::uint64_t imageSize;
    std::uint64_t moduleIdentity;
    platform::ImageHeaders headers;  ///< no bytes where they cannot be read
    bool hasBuildId = false;
    std::vector<Witness> proofs;

    mutable std::mutex reading;
    mutable std::atomic<bool> areRead{false};
    mutable UnwindTables readOnce;
};

}  // namespace ThreadUtilities::process
