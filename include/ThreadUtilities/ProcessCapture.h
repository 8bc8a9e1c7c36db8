// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Stacks of the threads of another process, which need not have this library. Linux x86-64; a
/// library of its own, `ThreadUtilities::Process` in CMake.
///
/// A thread that is blocked in the kernel is not touched: it is neither stopped nor woken. One that
/// runs is stopped for some microseconds, for as long as it takes to read its registers and copy
/// the top of its stack; it goes on even when the calling process ends meanwhile. No signal is sent
/// to the process, ever. A thread that begins to wait in the moment before it is stopped waits on
/// afterwards, where it had a time limit with some microseconds more. Only where the calling
/// process is killed just then, a wait may end with EINTR that would else not.
///
/// For that moment the calling process is the thread's tracer (ptrace(2)), on a thread of its own:
/// it may get SIGCHLD, and a wait of its own for any child may be told of the stop. Neither
/// disturbs the look.
///
/// All functions may be called by any number of threads at once; none is async-signal-safe.

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <ThreadUtilities/Export.h>

namespace ThreadUtilities {

/// That a process cannot be looked at. `what()` is one line that says why, and what would help.
class THREAD_UTILITIES_API ProcessCaptureError : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
    ~ProcessCaptureError() override;
};

/// What became of one look at a thread.
enum class LookResult : std::uint8_t {
    Blocked,       ///< was at rest in the kernel, and was not touched
    Stopped,       ///< ran, and was stopped for a moment
    NoSuchThread,  ///< of this process, or it has ended
    /// A debugger has it, `ThreadLook::tracer` is that debugger's process. With frames where the
    /// thread stands still.
    Traced,
    NotPermitted,  ///< the system lets this process not look at the thread (any more)
    /// Did not come to a stop in time: it got no processor, or is in a system call that nothing
    /// ends.
    Unanswered,
};

/// What a thread has had of the processors. Equal in two looks: it did not run between them.
struct ThreadRunCount {
    std::uint64_t runs = 0;
    std::uint64_t nanosecondsOnProcessor = 0;
    std::uint64_t nanosecondsOfWaitingForOne = 0;

    bool operator==(const ThreadRunCount&) const = default;
};

/// One look at a thread.
struct ThreadLook {
    LookResult result = LookResult::NoSuchThread;
    /// Of the entries of `frames`: return addresses, innermost first.
    std::size_t frameCount = 0;
    /// The stack went on beyond what was copied of it while the thread was stopped, beyond the
    /// limit, or from where the walk would have needed a register that only a stop tells.
    bool isCutShort = false;
    /// As the kernel tells it (proc(5), "state"): R, S, D, T, t, Z, X or I; 0 where unknown.
    char state = 0;
    unsigned int tracer = 0;  ///< process id; with `LookResult::Traced`
    /// The system call that it is blocked in, in x86-64 numbers; -1 for none.
    long systemCall = -1;
    std::array<std::uint64_t, 6> arguments{};  ///< of that system call
    std::uint64_t instructionPointer = 0;
    std::uint64_t stackPointer = 0;
    /// Read before the look; with `LookResult::Blocked` true after it as well.
    ThreadRunCount runs;
};

/// What the looks of one `ProcessCapture` have cost and brought so far.
struct CaptureStatistics {
    std::uint64_t looks = 0;
    std::uint64_t blocked = 0;
    std::uint64_t stopped = 0;
    std::uint64_t missed = 0;  ///< without a frame, whatever the reason
    std::uint64_t cutShort = 0;
    /// From the moment at which a thread was asked to stop, or was last seen not to have stopped
    /// yet (one that waits for a processor), to that at which it was let go.
    std::chrono::nanoseconds longestStop{0};
    std::chrono::nanoseconds stoppedInAll{0};
};

/// Captures stacks of the threads of one process. Copies share everything, so an object may be
/// handed to `sampleProcessThread` and `sampleProcessAllThread` as their callback:
///
/// \code
/// ThreadUtilities::ProcessCapture capture(processId);
/// std::cout << ThreadUtilities::sampleProcessThread(processId, processId, 10s, 10ms, capture);
/// \endcode
///
/// Unwind tables are read from the modules' files where these are the ones in memory, else from
/// the process's memory. What has been worked out of them is kept, by the modules' identity, for
/// all threads and for as long as the object lives; a few megabytes.
class THREAD_UTILITIES_API ProcessCapture {
 public:
    /// Throws `ProcessCaptureError` when there is no such process, or it may not be looked at.
    explicit ProcessCapture(unsigned int processId);

    [[nodiscard]] unsigned int processId() const noexcept;

    /// A `StackCaptureCallback`: stores up to `limit` return addresses of the thread, innermost
    /// first, in the first entries of `frames`, which grows where it is shorter. Returns their
    /// number; 0 for another process, or when `look` found none.
    unsigned long long operator()(unsigned int processId, const unsigned int& threadId,
                                  std::vector<unsigned long long>& frames,
                                  unsigned long long limit) const;

    /// The same, with all that was seen. Takes at most about 50 ms (a thread that does not stop).
    ThreadLook look(unsigned int threadId, std::vector<unsigned long long>& frames,
                    std::size_t limit) const;

    /// The same without a stop: a thread that is not blocked gives no frames, its `result` is
    /// `Unanswered`.
    ThreadLook lookWithoutStop(unsigned int threadId, std::vector<unsigned long long>& frames,
                               std::size_t limit) const;

    /// Copies up to `size` bytes at `address` of the process. Returns how many were copied from the
    /// front: fewer, possibly 0, where the memory beyond cannot be read, or has no contents yet.
    std::size_t readMemory(std::uint64_t address, void* out, std::size_t size) const noexcept;

    [[nodiscard]] CaptureStatistics statistics() const noexcept;

 private:
    class State;
    std::shared_ptr<State> state;
};

}  // namespace ThreadUtilities
