// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// What a thread waits for.

#include <ThreadUtilities/ProcessCapture.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "process/descriptors.h"
#include "process/target.h"

namespace ThreadUtilities::companion {

enum class HolderKind : std::uint8_t {
    none,     ///< nobody, or it cannot be known
    thread,   ///< a thread of the process that lives
    ended,    ///< a thread of the process that has ended
    foreign,  ///< a thread of another process, or one from before a fork
};

struct Wait {
    /// "mutex", "read", "sleep": for programs.
    std::string_view kind = "call";
    /// "waits for the mutex at 0x1234", "reads from pipe 12 (descriptor 3)".
    std::string words;
    /// ", for 2 s more"; often empty.
    std::string time;
    /// Of the lock or value; 0 for none.
    std::uint64_t address = 0;
    HolderKind holderKind = HolderKind::none;
    /// Its thread id, in this program's numbers but for `ended` and `foreign`.
    unsigned int holder = 0;
    /// ", which main holds"; empty where nobody is known.
    std::string holderWords;
    bool isGuess = false;
    /// It ends by itself at some time.
    bool isTimed = false;

    std::string text() const { return (isGuess ? "perhaps " : "") + words + holderWords + time; }
    /// Whether both are the same wait; how long it still takes does not matter.
    bool isSame(const Wait& other) const {
        return kind == other.kind && address == other.address && holder == other.holder &&
               holderKind == other.holderKind;
    }
};

/// One function that a thread is in.
struct CalledFunction {
    std::string_view name;
    bool isOfCLibrary = false;
};

/// Who asks: the parts of a process that a wait is worked out from.
struct WaitSources {
    const Target& target;
    Descriptors& descriptors;
};

/// `functions`: the innermost ones, as far as they have names.
Wait waitOf(const WaitSources& sources, unsigned int threadId, const ThreadLook& look,
            const std::vector<CalledFunction>& functions);

/// The parts of it. Precondition of each: the thread is in such a system call.
Wait futexWait(const Target& target, unsigned int threadId, const ThreadLook& look,
               const std::vector<CalledFunction>& functions);
bool isFileCall(long systemCall);
Wait fileWait(const WaitSources& sources, const ThreadLook& look);

}  // namespace ThreadUtilities::companion
