// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "platform/thread_context.h"
#include "process/module_list.h"
#include "unwind/frame_walk.h"
#include "unwind/rule_cache.h"

namespace ThreadUtilities {

/// Walks stacks of the threads of one other process. Any number of threads at once; what one
/// finds out of the modules and their rules, all know.
class ProcessWalker {
 public:
    /// Reads the process's map. Throws `std::runtime_error` for a process of 32 bits. One that is
    /// missing or may not be read has no modules.
    explicit ProcessWalker(unsigned int processId);

    struct Result {
        std::size_t frameCount = 0;
        WalkEnd end = WalkEnd::EndOfStack;
        /// Words were wanted that lie outside of the copied stack.
        bool leftCopy = false;
    };

    /// As `walkThread`, of a thread of the process. `context.stack` with its shift is a copy of the
    /// thread's stack. `mayReadStack` says that the thread is at rest, so that what lies outside of
    /// the copy may be read from the process; else the walk ends where the copy does.
    Result walk(const platform::ThreadContext& context, bool mayReadStack,
                unsigned long long* frames, std::size_t maxFrames) noexcept;

    /// Copies up to `size` bytes of the process; returns how many were copied from the front.
    std::size_t readMemory(std::uint64_t address, void* out, std::size_t size) const noexcept;

    /// Where the mapping ends that holds an address, as of the last look at the map: how far a
    /// stack can go. 0 where that is unknown.
    std::uint64_t mappingEnd(std::uint64_t address) const noexcept;

 private:
    using Clock = std::chrono::steady_clock;
    using List = std::shared_ptr<const process::ModuleList>;

    List currentList() const noexcept;
    bool lookAgain(const List& seen, bool hasChanged) const noexcept;

    const unsigned int processId;
    const std::unique_ptr<cfi::RuleCache> rules;
    mutable std::mutex listMutex;  ///< of `list`
    mutable List list;
    mutable std::mutex lookMutex;  ///< held for a look at the map; guards what follows
    mutable std::uint64_t lastIdentity = 0;
    mutable Clock::time_point nextLook;
};

}  // namespace ThreadUtilities
