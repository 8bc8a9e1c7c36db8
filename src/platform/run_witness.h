// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What bears witness to whether a thread has run.

#include <cstddef>
#include <cstdint>
#include <optional>

namespace ThreadUtilities::platform {

/// What a thread has had of the processors. It changes before a thread that was at rest executes
/// another instruction. Therefore a thread that was at rest at some moment between two readings
/// that are equal has not run since that moment. (While a thread runs on, it need not change.)
struct ThreadRuns {
    std::uint64_t count = 0;  ///< 0 where the system does not count runs
    std::uint64_t time = 0;
    std::uint64_t wait = 0;

    bool operator==(const ThreadRuns&) const = default;
};

/// Reads one thread's `ThreadRuns`. For one thread at a time. Allocates nothing, takes no lock.
class RunWitness {
 public:
    /// Keeps one file open at most; with `keepsFilesForVisits` also what a visit of the thread
    /// reads, `mostFiles` then in all.
    explicit RunWitness(unsigned int threadId, bool keepsFilesForVisits = false) noexcept;
    ~RunWitness();
    RunWitness(const RunWitness&) = delete;
    RunWitness& operator=(const RunWitness&) = delete;

    /// None for a thread that has ended, even when another has taken its id, and on a system that
    /// has nothing exact enough for the proof.
    std::optional<ThreadRuns> read() const noexcept;

    /// The processor time that the thread has had. That it has not changed is a strong hint that
    /// the thread has not run, and several times cheaper than the proof. None as with `read`.
    std::optional<std::uint64_t> readHint() const noexcept;

    static constexpr std::size_t mostFiles = 3;

 private:
    friend class FilesForVisits;

    unsigned int id;
    int runsFile;
    int statusFile = -1;
    int callFile = -1;
};

/// Gives the calling thread, up to its end, open files of its own: what it opens from now on takes
/// no number from the rest of the process, and nobody else can close it. Of the process's files it
/// keeps standard input, output and error; no foreign code may run on it that needs others.
/// Returns how many it may keep open at a time; 0 where it still shares its files.
std::size_t separateOpenFiles() noexcept;

}  // namespace ThreadUtilities::platform
