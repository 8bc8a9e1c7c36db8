// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/run_witness.h"
#include "platform/thread_context.h"

// What the system tells of threads. Only the names are guarded: set the rest up before threads
// read.
namespace ThreadUtilities::scripted {

/// The threads that the system knows of, as src/platform/threads.h asks for them; assign `{}` to
/// start afresh.
struct ThreadsScript {
    /// What either source lists, by process id; a process that is not here has no threads.
    std::map<unsigned int, std::vector<unsigned int>> systemInformation;
    std::map<unsigned int, std::vector<unsigned int>> snapshot;

    /// Whether the notices cover a list of that size. May act as another thread would meanwhile.
    std::function<bool(std::size_t)> noticesCover = [](std::size_t) { return true; };
    std::vector<unsigned int> live;

    int systemInformationCalls = 0;
    int snapshotCalls = 0;
    int liveCalls = 0;
};
inline ThreadsScript threads;

struct ThreadNames {
    std::mutex mutex;
    std::map<unsigned int, std::string> byThread;
};
inline ThreadNames threadNames;

/// How visits to one thread go: the visitor is shown each context in turn, and then the visit ends
/// with `result`.
struct VisitScript {
    std::vector<platform::ThreadContext> contexts;
    platform::VisitResult result = platform::VisitResult::Visited;
    std::optional<platform::ThreadRuns> atRest = std::nullopt;
};

/// By thread; those that are not here do not exist.
inline std::map<unsigned int, VisitScript> visitScripts;
inline int visits = 0;
inline platform::VisitRequest lastVisit;

/// What a `platform::RunWitness` says of a thread; of all others it says nothing.
inline std::map<unsigned int, platform::ThreadRuns> threadRuns;
inline std::atomic<int> openWitnesses = 0;

/// What `platform::separateOpenFiles` answers.
inline std::size_t separateFiles = 0;

}  // namespace ThreadUtilities::scripted
