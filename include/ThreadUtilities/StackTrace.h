#pragma once

/// \file
/// Call stacks of the threads of this process, and the text of one frame.
///
/// A captured stack is a list of raw 64-bit return addresses, innermost first. Capturing and
/// describing are separate steps on purpose: capturing allocates nothing and takes no lock,
/// describing does both and belongs after the captured thread runs again.
///
/// Every function may be called from any thread at any time; none is async-signal-safe.
/// Failures are quiet: a count of 0 or an empty text.

#include <string>

#include <ThreadUtilities/Export.h>

namespace ThreadUtilities {

/// Captures the stack of one thread of the calling process.
///
/// `frames` has room for `maxFrames` entries and receives at most that many return addresses,
/// innermost first; entries behind the returned count are not written, except that entry 0 is set
/// to 0 before a capture begins. The address at which another thread was executing is itself not
/// stored: its first entry is the return address of its innermost function. For the calling
/// thread, entry 0 lies inside `getStackTrace`.
///
/// With `suspend` the thread stands still while its stack is walked; without, it runs on and the
/// walk takes what it finds. The flag means nothing for the calling thread. The thread runs again
/// on every path, and no heap memory and no lock is used while it stands.
///
/// Returns the number of entries stored; 0 when a debugger is attached to the process (nothing is
/// written then), `frames` is null, `maxFrames` is 0, or the thread does not exist, has ended,
/// belongs to another process or cannot be stopped. A stack that turns out damaged gives the
/// entries up to the damage.
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
/// address, or when another process is asked for.
THREAD_UTILITIES_API std::wstring getFrameDetails(const unsigned int& processId,
                                                  unsigned long long address);

}  // namespace ThreadUtilities
