// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Which thread runs, which threads a process has, and what they are called.
///
/// Every function may be called from any thread at any time, in the exit destructors of a thread
/// and in a fork child too (where the child was made by `_Fork` or a bare `clone`: as far as the
/// child may allocate). Not in a child that shares its parent's memory (`vfork`): it counts as the
/// thread that made it. None is async-signal-safe unless it says so. Failures are quiet: an empty
/// list or an empty text; only an allocation failure is thrown.
///
/// On Linux, "announced" threads are those that begin by `pthread_create` or `thrd_create` while
/// the library stands before the C library in the order of look-up: the program links it, or it is
/// preloaded. It does not where it was loaded by `dlopen` or is needed by another library only.
/// Each announced thread, and each that names itself, holds a robust mutex of the library's for
/// life, by whose state the library learns of its end.
///
/// No call waits for another thread but for the moment in which that changes the list or a name.
///
/// A thread id is the operating system's own 32-bit id (Linux: `gettid`), a process id likewise.

#include <string>
#include <vector>

#include <ThreadUtilities/Export.h>

namespace ThreadIds {

/// The thread that loaded the library; for a program that links it, the program's main thread.
/// In a fork child: the thread that called `fork`. Async-signal-safe.
THREAD_UTILITIES_API unsigned int getMainThreadId();

/// The calling thread's id. A few nanoseconds: the id is kept per thread.
THREAD_UTILITIES_API unsigned int getThreadId();

/// The threads of the calling process: those found at load first, later ones in the order in
/// which they started; a thread is listed until its end, its exit destructors included. Answered
/// from memory, after one system call that counts the threads (1 to 2 us), where every thread is
/// announced; while some are not, or one just ends, reconciled with the system's own list (about
/// 0.5 us a thread more). Where the system's list cannot be read (no free descriptor, no /proc):
/// the known threads that are alive, and others as far as they are found by asking for ids.
THREAD_UTILITIES_API std::vector<unsigned int> getThreadIds();

/// The threads of any process, enumerated afresh on each call, in the system's order. Empty when
/// `processId` names no process, or one whose threads the caller may not list.
THREAD_UTILITIES_API std::vector<unsigned int> getThreadIds(unsigned int processId);

}  // namespace ThreadIds

namespace ThreadUtilities {

/// Same as `ThreadIds::getMainThreadId`.
THREAD_UTILITIES_API unsigned int getMainThreadId();
/// Same as `ThreadIds::getThreadId`.
THREAD_UTILITIES_API unsigned int getThreadId();
/// Same as `ThreadIds::getThreadIds`. The threads of this process and their names:
///
/// \code
/// for (const unsigned int id : ThreadUtilities::getThreadIds()) {
///     std::cout << id << ' ' << ThreadUtilities::getThreadName(id) << '\n';
/// }
/// \endcode
THREAD_UTILITIES_API std::vector<unsigned int> getThreadIds();
/// Same as `ThreadIds::getThreadIds(processId)`.
THREAD_UTILITIES_API std::vector<unsigned int> getThreadIds(unsigned int processId);

/// The primary thread of `threadId`: every thread is its own, so the argument, unchanged.
THREAD_UTILITIES_API unsigned int getPrimaryThreadId(const unsigned int& threadId);
/// The calling thread's id.
THREAD_UTILITIES_API unsigned int getPrimaryThreadId();

/// The id in decimal digits, without sign or padding: 0, 4294967295.
THREAD_UTILITIES_API std::string getThreadIdString(const unsigned int& threadId);
/// The calling thread's id in decimal.
THREAD_UTILITIES_API std::string getThreadIdString();

/// The id as "0x" and lower-case hexadecimal digits without padding: 0x0, 0x1234, 0xffffffff.
THREAD_UTILITIES_API std::string getThreadIdHexString(const unsigned int& threadId);
/// The calling thread's id in the same hexadecimal form.
THREAD_UTILITIES_API std::string getThreadIdHexString();

/// Names the calling thread.
///
/// `name` is UTF-8 of any length; it ends at its first NUL, and malformed sequences are replaced
/// by U+FFFD. The system's own, shorter name (Linux: 15 bytes) gets the longest whole-character
/// prefix, so that debuggers and process viewers show it. On Linux the main thread's system name
/// is also the process's name in `ps`; naming that thread renames the process there.
/// An empty name takes the name away, and gives the thread the system's name back that it had
/// before it was named. Nothing is reported when the system refuses.
THREAD_UTILITIES_API void setThreadName(const std::string& name);

/// The name of any thread that the caller may inspect, in any process, as UTF-8. Empty when the
/// thread has no name of its own, does not exist or may not be inspected. For a thread of this
/// process the full name given by `setThreadName`, unless other code has since given the system
/// another one (where the system's cannot be read, for want of a descriptor or of /proc: the full
/// name); for a thread of another process the system's name.
/// On Linux a thread inherits its creator's name in the system, which is not a name of its own. Of
/// a thread that was not announced nothing tells the two apart: a name counts as inherited there
/// if it is the program's or one that `setThreadName` gave to some thread, and else as its own.
/// Never waits for the thread: a name set concurrently is read before or after the change.
THREAD_UTILITIES_API std::string getThreadName(unsigned int threadId);

/// The calling thread's name.
THREAD_UTILITIES_API std::string getThreadName();

}  // namespace ThreadUtilities
