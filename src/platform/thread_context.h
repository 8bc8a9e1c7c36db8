#pragma once

// Visiting the register context of a thread of this process.

#include <array>
#include <cstddef>
#include <cstdint>

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

/// A stretch of memory, [begin, end), that can be read without a fault for as long as the thread
/// that it was handed out for stands still. Empty when nothing is known.
struct ReadableRange {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
};

/// What a visitor gets to see of a thread.
struct ThreadContext {
    Registers registers;
    /// The part of the thread's own stack that is known to be readable. Words outside are read
    /// through `readOwnMemory`.
    ReadableRange stack;
};

/// Context: the thread stands still, and this may be a signal handler on it: no allocation, no
/// lock, no log, no `thread_local`, no exception.
using ContextVisitor = void (*)(const ThreadContext& context, void* state) noexcept;

enum class VisitResult {
    Visited,
    NoSuchThread,  ///< unknown, ended, or of another process
    NotAnswering,  ///< could not be stopped in time; the visitor did not run and never will
};

/// Lets `visitor` see the context of thread `threadId`, which is not the calling thread.
///
/// With `suspend` the thread stands still for as long as the visitor runs, and runs again on every
/// path; without, the visitor sees a context that was true a moment ago while the thread runs on,
/// `stack` is empty then. Any number of visits may go on at once, two threads that visit each
/// other included. Allocates nothing. The visitor has ended when this returns.
VisitResult visitThreadContext(unsigned int threadId, bool suspend, ContextVisitor visitor,
                               void* state) noexcept;

/// The readable part of the calling thread's own stack, from about the stack pointer upward.
ReadableRange currentStackRange() noexcept;

}  // namespace ThreadUtilities::platform
