// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// One walk through any space, by the compilers' tables and by what walks before it have found out.

#include <cstddef>
#include <cstdint>

#include "platform/thread_context.h"
#include "unwind/cfi_unwinder.h"
#include "unwind/frame_walk.h"
#include "unwind/stack_words.h"
#include "unwind/table_reader.h"
#include "unwind/walk.h"
#include "unwind/walk_memory.h"
#include "unwind/walk_state.h"

namespace ThreadUtilities::cfi {

/// Where a walk starts, and what it may do.
struct WalkStart {
    const platform::Registers& registers;
    std::uint32_t knownRegisters = platform::allRegisters;
    std::uint64_t stackShift = 0;  ///< as in `platform::ThreadContext`
    bool mayCallSystem = true;
    bool isOwn = false;  ///< of the calling thread, as `CfiUnwinder::startAsCaller` asks for
};

/// A `WalkResult` and whether copies are what the walk lacked: small enough for two registers.
struct TableWalk {
    std::size_t frameCount = 0;
    WalkEnd end = WalkEnd::EndOfStack;
    bool lacksCopies = false;

    WalkResult result() const noexcept { return {frameCount, end}; }
};

/// Not inlined: the position of a walk needs all of the processor's registers. For that reason,
/// too, `memoryOf`, which returns a `WalkMemory`, is called in here: where it names objects with
/// static storage, no register holds their addresses.
template <CfiUnwinder::Keeps keeps, class MemoryOf>
[[gnu::noinline]] TableWalk walkKeeping(const WalkStart& start, MemoryOf memoryOf,
                                        TableSource tables, StackWords& words,
                                        unsigned long long* frames,
                                        std::size_t maxFrames) noexcept {
    const WalkMemory memory = memoryOf();
    WalkState state(start.registers, start.knownRegisters, start.mayCallSystem, tables);
    CfiUnwinder unwinder(memory, keeps, words, start.stackShift, start.isOwn, state);
    if (start.isOwn && keeps == CfiUnwinder::Keeps::FramePointer) {
        unwinder.startAsCaller();
    }
    const WalkResult result = walkStack(unwinder, words, frames, maxFrames);
    if (words.metProtectedPage() && memory.crossings != nullptr) [[unlikely]] {
        memory.crossings->turnOff();
    }
    return {result.frameCount, result.end, state.lacksCopies};
}

/// Walks from `start` outward, as `walkStack` says.
/// Context: target stopped, or signal handler; no allocation, no lock, no log.
template <class MemoryOf>
TableWalk walkByTables(const WalkStart& start, MemoryOf memoryOf, TableSource tables,
                       StackWords& words, unsigned long long* frames,
                       std::size_t maxFrames) noexcept {
    using Keeps = CfiUnwinder::Keeps;
    const TableWalk first =
        walkKeeping<Keeps::FramePointer>(start, memoryOf, tables, words, frames, maxFrames);
    if (first.end == WalkEnd::UnknownRegister) [[unlikely]] {
        // A frame farther out is addressed by a register that cached rules do not carry along.
        return walkKeeping<Keeps::AllRegisters>(start, memoryOf, tables, words, frames, maxFrames);
    }
    return first;
}

}  // namespace ThreadUtilities::cfi
