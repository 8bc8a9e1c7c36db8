// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Call stacks of the threads of this process, the text of one frame, and reports of whole stacks.
///
/// A captured stack is a list of raw 64-bit return addresses, innermost first. Capturing and
/// describing are separate steps on purpose: capturing allocates nothing and takes no lock,
/// describing does both and belongs after the captured thread runs again.
///
/// Every function may be called from any thread at any time; none is async-signal-safe.
/// Failures are quiet: a count of 0 or an empty text.

#include <string>
#include <utility>

#include <ThreadUtilities/Export.h>
#include <vesko/handle.h>

namespace ThreadUtilities {

/// Captures the stack of one thread of the calling process.
///
/// `frames` has room for `maxFrames` entries and receives at most that many return addresses,
/// innermost first; entries behind the returned count are not written, except that entry 0 is 0
/// after a capture that failed. The address at which another thread was
/// executing is itself not stored: its first entry is the return address of its innermost function.
/// For the calling thread, entry 0 lies inside `getStackTrace`.
///
/// With `suspend` the thread is stopped while its stack is walked; without, it runs on and the
/// walk takes what it finds. The flag means nothing for the calling thread. The thread runs again
/// on every path, and no heap memory and no lock is used while it is stopped. A stack deeper than
/// 256 frames is collected in memory that the call maps for itself, if there is any.
///
/// The call lasts microseconds, mostly. A thread that cannot answer is known at once, or within a
/// tenth of a second; one that could but gets no processor is given up a second after the call
/// began. Whatever it does later, it touches nothing of the caller's.
///
/// Needs up to 8 KB of the calling thread's stack, its first call included, and 4 KB of an
/// interrupted thread's, or of its alternate signal stack where it has one, below the system's
/// signal frame; where less is left that thread goes on at once and has no frames.
///
/// Returns the number of entries stored; 0 when a debugger is attached to the process (nothing is
/// written then), `frames` is null, `maxFrames` is 0, or the thread does not exist, has ended,
/// belongs to another process or cannot be stopped. A stack that turns out damaged gives the
/// entries up to the damage.
///
/// \code
/// std::array<unsigned long long, 256> frames;
/// const auto count = ThreadUtilities::getStackTrace(threadId, frames.data(), frames.size(), true);
/// for (unsigned long long i = 0; i < count; ++i) {
///     std::wcout << ThreadUtilities::getFrameDetails(0, frames[i]) << L'\n';
/// }
/// \endcode
THREAD_UTILITIES_API unsigned long long getStackTrace(const unsigned int& threadId,
                                                      unsigned long long* frames,
                                                      unsigned long long maxFrames, bool suspend);

/// Describes one code address of a process (0: the calling process) by module, offset and GUID:
///
///     libm.so.6+0x1C2B0{B5883EE7-D27B-21B7-F8A9-228ED6808B85};
///
/// File name of the module, upper-case hexadecimal offset from the module's lowest mapped
/// address, and the GUID under which symbol stores file the module's debug information (Linux:
/// the first 16 bytes of the GNU build-id, ELF gABI note type NT_GNU_BUILD_ID; all zero when the
/// module has none). No symbols are looked up.
///
/// Empty when the address lies in no module or the process's modules cannot be listed. Allocates
/// and locks; the list of modules is kept between calls and renewed when it does not know the
/// address, or when another process is asked for. Calls wait for each other, for as long as it
/// takes to list the modules of a process.
THREAD_UTILITIES_API std::wstring getFrameDetails(const unsigned int& processId,
                                                  unsigned long long address);

/// The stack of one thread of the calling process as UTF-8 text: up to 256 frames, innermost
/// first, each as `getFrameDetails` describes it, with nothing between them and no line end.
/// Frames that lie in no module are left out.
///
/// The thread is stopped only while its frames are captured; it runs again before the first one
/// is described. A report on the calling thread begins with frames of this library.
///
/// Empty when nothing could be captured; "debugger attached" when a debugger is attached to the
/// process, whose threads are then left alone. `framework` is released on return and not used
/// otherwise; `{}` will do. Lasts as long as the capture and the descriptions.
THREAD_UTILITIES_API std::string getStackTrace(vesko::handle<ICoreFramework> framework,
                                               unsigned int threadId);

/// The stacks of all threads of the calling process, one line each in the order of
/// `getThreadIds`:
///
///     [4711][worker]libc.so.6+0x91A26{...};app+0x1C2B{...};
///
/// with thread id, name (possibly empty) and stack as above. Threads that gave no stack, because
/// they had ended for example, have no line. Threads are stopped one at a time, each only while
/// its own frames are captured.
///
/// `second` is empty. When a debugger is attached it reads "debugger attached", and `first` is the
/// calling thread's id in decimal; no thread was touched then. `framework` as above.
///
/// A capture takes microseconds, up to a second for a thread that could answer but does not; the
/// descriptions take as long as `getFrameDetails`.
///
/// \code
/// std::ofstream("stacks.txt") << ThreadUtilities::getAllThreadStackTrace({}).first;
/// \endcode
THREAD_UTILITIES_API std::pair<std::string, std::string> getAllThreadStackTrace(
    vesko::handle<ICoreFramework> framework);

}  // namespace ThreadUtilities
