// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// What marks the work done for one external input (a click, a request, a message) while it
/// travels from thread to thread: a hint, that is a name with a generated id, and a store of
/// timestamped texts.
///
/// Every thread has one current hint, possibly none, and one current store, possibly none. A
/// `vesko::source::location` captures both where work is posted; a
/// `ThreadUtilities::ScopedThreadName` made from it adopts both where the work is run:
///
/// \code
/// void Window::onOpen() {
///     const auto current = vesko::external_input::hint::createExternalInputHint("open");
///     pool.post([this, from = vesko::source::location::current()] {
///         const ThreadUtilities::ScopedThreadName name(from);
///         readDocument();  // under the hint "open", on a thread named after onOpen
///     });
/// }
/// \endcode
///
/// Every function may be called from any thread at any time, in thread-exit destructors and in a
/// fork child too; none waits for another thread, and none is async-signal-safe. A thread that is
/// so far in its end that nothing would release a new hint or store any more (Linux: after the last
/// round of thread-specific destructors that the system grants) keeps none: setting is ignored
/// then, reading finds nothing.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include <ThreadUtilities/Export.h>

namespace vesko::source {
struct location;
}

namespace vesko::external_input {

struct scoped_hint;

/// A name with an id. A hint whose name is empty counts as no hint at all.
///
/// A plain value; the static functions deal with the calling thread's current hint. Texts are any
/// bytes, nothing is checked. An allocation failure is thrown and leaves the current hint as it
/// was.
struct hint {
    THREAD_UTILITIES_API hint();
    THREAD_UTILITIES_API hint(const hint& other);
    /// The id comes first here, although the name is the first field.
    THREAD_UTILITIES_API hint(const std::string& id, const std::string& name);
    THREAD_UTILITIES_API ~hint();

    hint& operator=(const hint& other) = default;

    THREAD_UTILITIES_API std::string getHintId() const;
    THREAD_UTILITIES_API std::string getHintName() const;

    /// Makes a copy of this hint the current one. An empty name leaves the thread without a hint.
    THREAD_UTILITIES_API void setAsExternalInputHint() const;

    /// Makes a hint with a generated id and makes it current until the returned guard ends.
    ///
    /// The id is "hint" and six digits: three random ones, then the number of hints created in
    /// this process modulo 1000. It tells hints apart in a log; it is not unique.
    ///
    /// The first one in a process seeds the random numbers, which takes 4 KB of stack and some
    /// microseconds' work; all others take less than 1 KB.
    [[nodiscard]] THREAD_UTILITIES_API static scoped_hint createExternalInputHint(
        const std::string& name);

    /// An independent copy of the current hint; null when there is none.
    THREAD_UTILITIES_API static std::shared_ptr<hint> getExternalInputHint();
    /// Empty when there is no current hint, even if an id without a name was set.
    THREAD_UTILITIES_API static std::string getExternalInputHintId();
    THREAD_UTILITIES_API static std::string getExternalInputHintName();

    THREAD_UTILITIES_API static void clearExternalInputHint();

    /// Adopts what `loc` captured: its hint, unless the current one has the same id (names are not
    /// compared), and its store, if that is still alive. What `loc` does not carry stays as it is.
    THREAD_UTILITIES_API static void copyThreadStorageIfNecessary(const source::location& loc);

    std::string name;
    std::string id;
};

/// Keeps a created hint current. Made by `hint::createExternalInputHint` alone, and neither copied
/// nor moved.
///
/// Its end leaves the calling thread without a hint: it does not bring back a hint that was
/// current before, and it also ends one that has replaced its own. It belongs on the thread on
/// which it was made.
struct [[nodiscard]] scoped_hint {
    scoped_hint(const scoped_hint&) = delete;
    THREAD_UTILITIES_API ~scoped_hint();

    /// Does nothing: a guard stands for the thread's one hint, which an assignment cannot change.
    THREAD_UTILITIES_API scoped_hint& operator=(const scoped_hint&);

 private:
    friend struct hint;
    scoped_hint(std::string id, std::string name);
};

/// Writes name, space, id, without a line end.
THREAD_UTILITIES_API std::ostream& operator<<(std::ostream& os, const hint& h);

/// Collects up to 100 texts with the times at which they were added, from any number of threads
/// at once. Items beyond the hundredth are dropped without notice; nothing is ever removed.
///
/// Owned through `std::shared_ptr` by whoever called `getOrCreateStore`; threads and locations
/// refer to it weakly, so it ends when its callers let go.
struct context_store : std::enable_shared_from_this<context_store> {
    THREAD_UTILITIES_API context_store() noexcept;
    THREAD_UTILITIES_API ~context_store();

    context_store(const context_store&) = delete;
    context_store& operator=(const context_store&) = delete;

    /// Adds an item. Takes no lock and allocates nothing but the copy of `text`; when that copy
    /// fails, the exception passes and an item with an empty text stands in its place.
    THREAD_UTILITIES_API void addEntry(const std::string& text);
    /// The same, for an item that is a header.
    THREAD_UTILITIES_API void addHeader(const std::string& text);

    /// Copies of the items as (is a header, milliseconds since 1970-01-01 00:00 UTC, text), in
    /// the order in which they took their slots; of items added at the same moment the earlier
    /// time need not come first.
    ///
    /// May run while other threads add. An item that is still being written is left out, items
    /// behind it are not: a later call returns it at its place.
    THREAD_UTILITIES_API std::vector<std::tuple<bool, long long, std::string>> getEntries();

    /// The calling thread's store if it is alive, otherwise a new one that becomes the thread's
    /// store. The caller's reference is what keeps it alive.
    THREAD_UTILITIES_API static std::shared_ptr<context_store> getOrCreateStore();

    /// The calling thread's store: empty on a thread that never had one, expired once the store
    /// has ended.
    THREAD_UTILITIES_API static std::weak_ptr<context_store> getStore();

 private:
    static constexpr std::size_t capacity = 100;

    void append(bool isHeader, const std::string& text);

    std::atomic<std::int32_t> entryCount{0};
    std::int32_t maxEntries = capacity;
    std::array<std::tuple<bool, long long, std::string>, capacity> entries;
    std::array<std::atomic<bool>, capacity> isWritten{};
};

}  // namespace vesko::external_input
