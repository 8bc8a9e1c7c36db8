// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "platform/clock.h"
#include "platform/current.h"
#include "platform/debugger.h"
#include "platform/fork_child.h"
#include "platform/memory.h"
#include "platform/system_library.h"
#include "platform/text.h"
#include "platform/thread_exit.h"
#include "platform/thread_names.h"
#include "platform/thread_stacks.h"
#include "platform/threads.h"
#include "scripted_platform/script.h"

namespace ThreadUtilities {
namespace {

using std::chrono::nanoseconds;

// Far from zero, so that code may look back from it.
constexpr nanoseconds startOfTime = std::chrono::hours(1000);

std::atomic<nanoseconds::rep> currentTime = startOfTime.count();
std::atomic<nanoseconds> perReading = nanoseconds(0);
std::atomic<unsigned int> hardwareThreadCount = 4;

std::mutex sleepMutex;
std::vector<nanoseconds> sleepRecord;

std::atomic<unsigned int> nextThreadId{1000};
thread_local unsigned int ownThreadId = 0;

/// Of one thread; the library has few of them, and asking must not allocate.
struct ExitCalls {
    std::array<void (*)() noexcept, 8> functions{};
    int count = 0;

    void run() {
        for (int i = std::exchange(count, 0); i > 0; --i) {
            functions[i - 1]();
        }
    }
};

constinit thread_local ExitCalls exitCalls;

/// Its value is set on every thread that asked. Made before all other keys, because the cross
/// compiler keeps `thread_local` variables in blocks that a key of its own releases, and the keys
/// of an ending thread are worked off there in the order in which they were made.
struct Key {
    Key() {
        pthread_key_create(&key, [](void*) { exitCalls.run(); });
    }
    pthread_key_t key{};
};
__attribute__((init_priority(101))) const Key ending;

template <typename Value>
Value entry(const std::map<unsigned int, Value>& values, unsigned int id) {
    const auto found = values.find(id);
    return found == values.end() ? Value() : found->second;
}

}  // namespace

namespace scripted {

void resetClock() {
    currentTime = startOfTime.count();
    perReading = nanoseconds(0);
    hardwareThreadCount = 4;
    const std::lock_guard lock(sleepMutex);
    sleepRecord.clear();
}

void advanceClock(nanoseconds duration) {
    currentTime += duration.count();
}

void setAdvancePerReading(nanoseconds duration) {
    perReading = duration;
}

void setHardwareThreads(unsigned int count) {
    hardwareThreadCount = count;
}

std::vector<nanoseconds> sleeps() {
    const std::lock_guard lock(sleepMutex);
    return sleepRecord;
}

std::vector<std::uint8_t> bytesOf(const std::vector<std::uint64_t>& words) {
    std::vector<std::uint8_t> bytes(words.size() * sizeof(std::uint64_t));
    std::memcpy(bytes.data(), words.data(), bytes.size());
    return bytes;
}

}  // namespace scripted

namespace platform {

std::chrono::steady_clock::time_point steadyNow() noexcept {
    return std::chrono::steady_clock::time_point(
        nanoseconds(currentTime.fetch_add(perReading.load().count())));
}

void sleepUntil(std::chrono::steady_clock::time_point time) {
    {
        const std::lock_guard lock(sleepMutex);
        const nanoseconds remaining = time.time_since_epoch() - nanoseconds(currentTime);
        sleepRecord.push_back(remaining);
        scripted::advanceClock(std::max(remaining, nanoseconds(0)));
    }
    std::this_thread::yield();
}

bool sleepUntilOrWoken(std::chrono::steady_clock::time_point,
                       const std::atomic<std::uint32_t>& word, std::uint32_t seen) noexcept {
    scripted::threads.duringSleep();
    return word != seen;
}

void wakeSleepers(const std::atomic<std::uint32_t>&) noexcept {
    ++scripted::threads.wakeUps;
}

void sleepPrecisely() noexcept {}

unsigned int hardwareThreads() noexcept {
    return hardwareThreadCount;
}

std::size_t readOwnMemory(std::uint64_t address, void* out, std::size_t size) noexcept {
    ++scripted::memoryQuestions;
    auto after = scripted::memory.upper_bound(address);
    if (after == scripted::memory.begin()) {
        return 0;
    }
    const auto& [begin, bytes] = *--after;
    const std::uint64_t offset = address - begin;
    if (offset >= bytes.size()) {
        return 0;
    }
    const std::size_t available = std::min<std::size_t>(size, bytes.size() - offset);
    std::memcpy(out, bytes.data() + offset, available);
    return available;
}

bool isReadableNow(std::uint64_t address) noexcept {
    std::uint64_t word = 0;
    return readOwnMemory(address, &word, sizeof(word)) == sizeof(word);
}

void prepareModuleLookup() noexcept {}

bool findCodeModule(std::uint64_t address, CodeModule& module, bool) noexcept {
    for (const CodeModule& known : scripted::codeModules) {
        if (address - known.begin < known.size) {
            module = known;
            return true;
        }
    }
    return false;
}

std::uint64_t permanentIdentity() noexcept {
    return scripted::permanentIdentity;
}

ReadableRange readableSegment(const CodeModule& module, std::uint64_t address) noexcept {
    return address - module.begin < module.size
               ? ReadableRange{module.begin, module.begin + module.size}
               : ReadableRange{};
}

std::vector<LoadedModule> listModules(unsigned int processId) {
    ++scripted::moduleListings;
    return scripted::processModules[processId].modules;
}

std::optional<ModuleListVersion> moduleListVersion(unsigned int processId) noexcept {
    return scripted::processModules[processId].version;
}

bool isModulePathSeparator(WideChar unit) noexcept {
    return unit == u'/' || unit == u'\\';
}

unsigned int currentThreadId() noexcept {
    if (scripted::currentThreadId != 0) {
        return scripted::currentThreadId;
    }
    if (ownThreadId == 0) {
        ownThreadId = nextThreadId++;
    }
    return ownThreadId;
}

unsigned int currentProcessId() noexcept {
    return scripted::ownProcessId;
}

bool isDebuggerAttached() noexcept {
    return scripted::debuggerAttached;
}

// The scripted system never copies a process.
RestartInForkChild::RestartInForkChild(void (*restartFunction)()) noexcept
    : restart(restartFunction) {}

ThreadExitCall::ThreadExitCall(void (*exitFunction)() noexcept) noexcept
    : function(exitFunction), systemKey(0) {}

bool ThreadExitCall::request() noexcept {
    if (scripted::threadExitCallsAreRefused || pthread_setspecific(ending.key, &exitCalls) != 0) {
        return false;
    }
    exitCalls.functions.at(exitCalls.count++) = function;
    return true;
}

using scripted::systemLibrary;

SystemFolder systemLibraryFolder() {
    return systemLibrary.folder;
}

bool isAbsolutePath(WideStringView path) noexcept {
    return systemLibrary.isAbsolute(path);
}

LibraryHandle openLibrary(const WideString& fullPath) {
    systemLibrary.opened.push_back(fullPath);
    const auto found = systemLibrary.libraries.find(fullPath);
    return found == systemLibrary.libraries.end() ? nullptr : found->second;
}

std::vector<unsigned int> enumerateThreadsFromSystemInformation(unsigned int processId) {
    ++scripted::threads.systemInformationCalls;
    return entry(scripted::threads.systemInformation, processId);
}

std::vector<unsigned int> enumerateThreadsFromSnapshot(unsigned int processId) {
    ++scripted::threads.snapshotCalls;
    return entry(scripted::threads.snapshot, processId);
}

bool noticesCover(std::size_t listed) noexcept {
    return scripted::threads.noticesCover(listed);
}

std::vector<unsigned int> liveThreads(const std::vector<unsigned int>&) {
    ++scripted::threads.liveCalls;
    return scripted::threads.live;
}

void setOwnThreadName(std::string_view name) {
    const std::lock_guard lock(scripted::threadNames.mutex);
    scripted::threadNames.byThread[currentThreadId()] = name;
}

std::string readThreadName(unsigned int threadId) {
    const std::lock_guard lock(scripted::threadNames.mutex);
    return entry(scripted::threadNames.byThread, threadId);
}

Visit visitThreadContext(const VisitRequest& request,
                         std::span<unsigned long long> frames) noexcept {
    ++scripted::visits;
    scripted::lastVisit = request;
    const auto found = scripted::visitScripts.find(request.threadId);
    if (found == scripted::visitScripts.end()) {
        return {VisitResult::NoSuchThread};
    }
    std::vector<unsigned long long> room(frames.size());
    std::size_t frameCount = 0;
    for (const ThreadContext& context : found->second.contexts) {
        VisitRoom forVisitor{room.data(), room.size()};
        request.visitor(context, forVisitor);
        frameCount = forVisitor.frameCount;
    }
    if (found->second.result != VisitResult::Visited) {
        return {found->second.result};
    }
    std::copy_n(room.begin(), frameCount, frames.begin());
    return {VisitResult::Visited, frameCount, found->second.atRest};
}

ReadableRange currentStackRange() noexcept {
    return {};
}

RunWitness::RunWitness(unsigned int threadId, bool) noexcept : id(threadId), runsFile(0) {
    ++scripted::openWitnesses;
}

RunWitness::~RunWitness() {
    --scripted::openWitnesses;
}

std::optional<ThreadRuns> RunWitness::read() const noexcept {
    const auto found = scripted::threadRuns.find(id);
    return found == scripted::threadRuns.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::uint64_t> RunWitness::readHint() const noexcept {
    const auto runs = read();
    return runs ? std::optional(runs->time) : std::nullopt;
}

std::size_t separateOpenFiles() noexcept {
    return 0;
}

}  // namespace platform
}  // namespace ThreadUtilities
