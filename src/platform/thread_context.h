#pragma once

// Visiting the register context of a thread of this process.

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/memory.h"

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
    /// The part of the thread's own stack that is known to be readable while the visitor runs.
    /// Words outside are read through `readOwnMemory`.
    ReadableRange stack;
    /// What to add to an address inside `stack` (modulo 2^64) to find its word: 0 where the stack
    /// itself is read, something else where `stack` was copied beforehand.
    std::uint64_t stackShift = 0;
    /// Whether the thread is held while the visitor runs. If not, it may go on, return, and let
    /// the modules be unloaded that it was in: apart from `stack`, everything found through this
    /// context, unwind tables included, is read through `readOwnMemory`.
    bool standsStill = true;
};

enum class VisitorAnswer {
    Enough,
    RegisterMissing,  ///< a register is needed that `knownRegisters` does not name
};

/// May run more than once in one visit; the last run counts. The ones before it were given up,
/// because a register was missing or the thread turned out to have moved meanwhile.
///
/// Context: may be a signal handler on the visited thread: no allocation, no lock, no log, no
/// `thread_local`, no exception.
using ContextVisitor = VisitorAnswer (*)(const ThreadContext& context, void* state) noexcept;

enum class VisitResult {
    Visited,
    NoSuchThread,  ///< unknown, ended, or of another process
    NotAnswering,  ///< could not be stopped in time; what the visitor may have seen is void
};

/// Lets `visitor` see the context of thread `threadId`, which is not the calling thread.
///
/// With `suspend` the context is one at which the thread stood while the visitor looked at it, and
/// the thread runs again on every path; without, the context was true a moment ago and the thread
/// runs on. Any number of visits may go on at once, two threads that visit each other included.
/// Allocates nothing. The visitor has ended when this returns and never runs later.
VisitResult visitThreadContext(unsigned int threadId, bool suspend, ContextVisitor visitor,
                               void* state) noexcept;

}  // namespace ThreadUtilities::platform
