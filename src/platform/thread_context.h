// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Visiting the register context of a thread of this process.

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/memory.h"
#include "platform/run_witness.h"

namespace ThreadUtilities::platform {

/// x86-64 registers in the numbering of the System V ABI's DWARF register map (figure 3.36);
/// number 16 stands for the return address column, here the instruction pointer.
enum Register : std::uint8_t {
    // clang-format off
    Rax, Rdx, Rcx, Rbx, Rsi, Rdi, Rbp, Rsp,
    R8, R9, R10, R11, R12, R13, R14, R15,
    Rip,
    RegisterCount
    // clang-format on
};

using Registers = std::array<std::uint64_t, RegisterCount>;

constexpr std::uint32_t registerBit(Register number) {
    return std::uint32_t{1} << number;
}
inline constexpr std::uint32_t allRegisters = registerBit(RegisterCount) - 1;

/// What a visitor gets to see of a thread.
struct ThreadContext {
    Registers registers{};
    /// One `registerBit` for each register whose value is known. Instruction and stack pointer
    /// always are; the others are 0 where unknown.
    std::uint32_t knownRegisters = allRegisters;
    /// The thread's own stack from about the stack pointer upward, or a copy of it. Words outside
    /// are read through `readOwnMemory`.
    ReadableRange stack;
    /// The part of `stack` that is known to be readable while the visitor runs. What lies elsewhere
    /// in it is the thread's own memory, of which nobody takes a page away while the thread is
    /// stopped; but hosts protect pages inside of stacks, therefore each is asked for.
    ReadableRange readableStack;
    /// What to add to an address inside `stack` (modulo 2^64) to find its word: 0 where the stack
    /// itself is read, something else where `stack` was copied beforehand.
    std::uint64_t stackShift = 0;
    /// Whether the thread is held while the visitor runs. If not, it may go on, return, and let
    /// the modules be unloaded that it was in: apart from `stack`, everything found through this
    /// context, unwind tables included, is read through `readOwnMemory`.
    bool isStopped = true;
    /// Whether the visitor may call the system. Not so on a thread with a system call filter of
    /// its own, which may end the thread for any call: `readOwnMemory` is out of reach there, and
    /// what cannot be read without it ends the walk.
    bool mayCallSystem = true;
    /// Room to work in, aligned to a cache line and `visitScratchSize` large, or empty. Like the
    /// room for frames it belongs to nobody else until the visitor has returned.
    std::span<std::byte> scratch;
};

inline constexpr std::size_t visitScratchSize = 8192;

/// Where a visitor leaves what it found. The room is the visit's own and not its caller's, so that
/// a visitor that is held up, and ends long after its visit was given up, writes over nobody.
struct VisitRoom {
    unsigned long long* frames = nullptr;
    std::size_t capacity = 0;
    std::size_t frameCount = 0;
};

enum class VisitorAnswer {
    Enough,
    RegisterMissing,  ///< a register is needed that `knownRegisters` does not name
    RoomMissing,      ///< there are more frames than the room holds; those in it are good
};

/// May run more than once in one visit; the last run counts. The ones before it were given up,
/// because a register or room was missing or the thread turned out to have moved meanwhile.
///
/// Context: may be a signal handler on the visited thread, which may have no thread-local storage:
/// no allocation, no lock, no log, no `thread_local`, no `errno`, no exception.
using ContextVisitor = VisitorAnswer (*)(const ThreadContext& context, VisitRoom& room) noexcept;

using VisitDeadline = std::chrono::steady_clock::time_point;

struct VisitRequest {
    unsigned int threadId = 0;  ///< not the calling thread
    bool suspend = true;
    ContextVisitor visitor = nullptr;
    /// When the visit is given up although nothing speaks against an answer.
    VisitDeadline deadline;
    /// The thread's, from a caller who visits it again and again; it may keep open what the visit
    /// reads.
    const RunWitness* witness = nullptr;
    /// That an earlier visit found a thread of this process at rest, and that no debugger traces
    /// any; so that this one may be looked at before anything else is asked of it.
    bool looksFirst = false;
};

enum class VisitResult {
    Visited,
    NoSuchThread,  ///< unknown, ended, or of another process
    NotAnswering,  ///< could not be stopped in time
};

struct Visit {
    VisitResult result = VisitResult::NotAnswering;
    std::size_t frameCount = 0;  ///< entries of `frames` that were written, and no others were
    /// Set where the thread was at rest and was not touched: as long as a `RunWitness` says the
    /// same of the thread, it has not run since.
    std::optional<ThreadRuns> atRest = std::nullopt;
};

/// Lets `request.visitor` see the context of a thread and stores what it found in `frames`.
///
/// With `suspend` the context is one at which the thread was stopped while the visitor looked at
/// it, and the thread runs again on every path; without, the context was true a moment ago and the
/// thread runs on. A thread that a debugger traces is not visited. Any number of visits may go on
/// at once, two threads that visit each other included. No heap. Whatever the visited thread does
/// later, it touches nothing of the caller's.
Visit visitThreadContext(const VisitRequest& request,
                         std::span<unsigned long long> frames) noexcept;

}  // namespace ThreadUtilities::platform
