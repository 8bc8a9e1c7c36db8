// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// A source position that also carries the external-input hint and the context store of the
/// thread that made it.

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include <ThreadUtilities/Export.h>
#include <vesko/external_input.h>

namespace vesko::source {

/// A copyable value that may be handed to and read on any thread. Copies share the captured hint,
/// which never changes, and refer weakly to the store.
struct location {
    /// The position of the call, with the calling thread's current hint and store. Without
    /// arguments file, line and function are those of the code that calls; the function name is
    /// the compiler's short one (g++ and clang: `run` inside `Worker::run`).
    ///
    /// \code
    /// void post(Job job, vesko::source::location from = vesko::source::location::current());
    /// \endcode
    ///
    /// The texts are not copied: they must outlive the location, as literals do. A null file or
    /// function is accepted and prints as an empty text.
    THREAD_UTILITIES_API static location current(
        const char* file = __builtin_FILE(), int line = __builtin_LINE(),
        const char* function = __builtin_FUNCTION()) noexcept;

    /// What `operator<<` writes.
    THREAD_UTILITIES_API std::string to_string() const;

    const char* file;
    const char* function;
    /// The hint at the moment of capture; null when there was none.
    std::shared_ptr<external_input::hint> externalInputHint;
    /// The store at the moment of capture; empty when the thread had neither hint nor live store.
    std::weak_ptr<external_input::context_store> contextStore;
    /// Bit for bit the line given: -1 reads 4294967295.
    std::uint32_t line;

 private:
    location(const char* sourceFile, const char* sourceFunction,
             std::shared_ptr<external_input::hint> capturedHint,
             std::weak_ptr<external_input::context_store> capturedStore,
             std::uint32_t sourceLine) noexcept;
};

/// Writes file name without folders, line and function as `Parser.cpp:120:open`, and behind it,
/// where a hint was captured, ` externalInputHint=` with the hint. No line end.
THREAD_UTILITIES_API std::ostream& operator<<(std::ostream& os, const location& loc);

}  // namespace vesko::source
