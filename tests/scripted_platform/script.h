// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What a test writes its script with. Of threads only the names are guarded: set the rest up before
// threads read.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/code_modules.h"
#include "platform/modules.h"
#include "platform/run_witness.h"
#include "platform/system_library.h"
#include "platform/thread_context.h"

namespace ThreadUtilities::scripted {

/// Puts the clock back to its start, empties the records and makes 4 hardware threads.
void resetClock();

/// Time stands still but for `advanceClock`, every sleep to its end, and every reading of the
/// clock by the given step (after it was read).
void advanceClock(std::chrono::nanoseconds duration);
void setAdvancePerReading(std::chrono::nanoseconds duration);

void setHardwareThreads(unsigned int count);

/// Every sleep asked for, of all threads, in order.
std::vector<std::chrono::nanoseconds> sleeps();

/// What `platform::readOwnMemory` finds, by address; nothing else can be read.
inline std::map<std::uint64_t, std::vector<std::uint8_t>> memory;
/// How often that or `platform::isReadableNow` was asked.
inline unsigned memoryQuestions = 0;

/// The bytes of 64-bit words.
std::vector<std::uint8_t> bytesOf(const std::vector<std::uint64_t>& words);

/// All bytes of these can be read.
inline std::vector<platform::CodeModule> codeModules;
/// What `platform::permanentIdentity` answers: at first, every module can be replaced by another.
inline std::uint64_t permanentIdentity = 0;

struct ProcessModules {
    std::vector<platform::LoadedModule> modules;
    std::optional<platform::ModuleListVersion> version = std::nullopt;
};

/// By process; one that is not here has no modules.
inline std::map<unsigned int, ProcessModules> processModules;
/// How often `listModules` was called, for any process.
inline int moduleListings = 0;

/// What `platform::currentProcessId` answers.
inline constexpr unsigned int ownProcessId = 77;

/// What `platform::currentThreadId` answers, for one thread at a time; 0 lets every thread have a
/// number of its own.
inline constinit thread_local unsigned int currentThreadId = 0;

inline bool debuggerAttached = false;

/// Whether requests for a call at thread exit are refused. Not changed while other threads run.
inline bool threadExitCallsAreRefused = false;

/// A system with no folder and no libraries until the test says otherwise.
struct SystemLibraryScript {
    platform::SystemFolder folder;
    bool (*isAbsolute)(WideStringView path) = [](WideStringView path) {
        return path.size() >= 3 && path[0] >= 'A' && path[0] <= 'Z' && path[1] == ':' &&
               path[2] == '\\';
    };
    std::map<WideString, platform::LibraryHandle> libraries;  ///< by the full path
    std::vector<WideString> opened;                           ///< every path asked for
};
inline SystemLibraryScript systemLibrary;

/// The threads that the system knows of, as src/platform/threads.h asks for them; assign `{}` to
/// start afresh.
struct ThreadsScript {
    /// What either source lists, by process id; a process that is not here has no threads.
    std::map<unsigned int, std::vector<unsigned int>> systemInformation;
    std::map<unsigned int, std::vector<unsigned int>> snapshot;

    /// Whether the notices cover a list of that size. May act as another thread would meanwhile.
    std::function<bool(std::size_t)> noticesCover = [](std::size_t) { return true; };
    std::vector<unsigned int> live;

    /// Called in a sleep for a start, as another thread would act meanwhile.
    std::function<void()> duringSleep = [] {};
    int wakeUps = 0;

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

}  // namespace ThreadUtilities::scripted
