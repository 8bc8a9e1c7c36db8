// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/thread_names.h"

#include <sys/auxv.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "linux/proc_file.h"
#include "linux/threads/task_folder.h"
#include "linux/threads/thread_names.h"
#include "linux/threads/thread_records.h"
#include "platform/current.h"

// The kernel keeps 15 bytes of a name, and any code may change them. What is kept here is the whole
// name together with the 15 bytes that stand for it: as long as the kernel's name is those bytes,
// the whole name holds; any other bytes were put there by somebody else and are the name.

namespace ThreadUtilities::platform {
namespace {

// The name under which the program was started; threads that nobody named bear it too.
constinit KernelName programName{};

// A thread inherits its creator's name in the kernel. Where its start was not announced, nothing
// tells that name from one of its own, but had it been given through this library, there would be a
// record: so a name that this library has given counts as inherited there. Lossy, and shared by
// all threads: a 32-bit print in the place that the name's hash leads to.
class GivenNames {
 public:
    void add(const KernelName& name) noexcept {
        const std::uint64_t hash = hashOf(name);
        auto& place = placeOf(hash);
        if (place.load(std::memory_order_relaxed) != printOf(hash)) {
            place.store(printOf(hash), std::memory_order_relaxed);
        }
    }
    bool has(const KernelName& name) noexcept {
        const std::uint64_t hash = hashOf(name);
        return placeOf(hash).load(std::memory_order_relaxed) == printOf(hash);
    }

 private:
    static std::uint64_t hashOf(const KernelName& name) noexcept {
        std::array<std::uint64_t, 2> halves;
        std::memcpy(halves.data(), name.data(), name.size());
        constexpr std::uint64_t goldenRatio = 0x9E3779B97F4A7C15;
        std::uint64_t hash = halves[0] * goldenRatio;
        hash = ((hash ^ hash >> 32) + halves[1]) * goldenRatio;
        return (hash ^ hash >> 29) * goldenRatio;
    }
    static std::uint32_t printOf(std::uint64_t hash) noexcept {
        return static_cast<std::uint32_t>(hash) | 1;  // 0 is nobody's
    }
    std::atomic<std::uint32_t>& placeOf(std::uint64_t hash) noexcept { return prints[hash >> 52]; }

    std::array<std::atomic<std::uint32_t>, 4096> prints{};
};
constinit GivenNames givenNames;

bool nobodyGave(const KernelName& name) noexcept {
    return name == programName || givenNames.has(name);
}

KernelName kernelPrefix(std::string_view name) noexcept {
    KernelName result{};
    std::size_t length = std::min(name.size(), result.size() - 1);
    // Cut before a character, never within one.
    while (length < name.size() && length > 0 && (name[length] & 0xC0) == 0x80) {
        --length;
    }
    std::copy_n(name.data(), length, result.data());
    return result;
}

std::string textOf(const KernelName& name) {
    return std::string(name.data(), strnlen(name.data(), name.size()));
}

// Of a thread that was not announced.
ThreadRecord* makeOwnRecord() {
    auto record = std::make_unique<ThreadRecord>();
    const KernelName inKernel = ownKernelName();
    record->unnamed = nobodyGave(inKernel) ? inKernel : programName;
    record->current.inKernel = record->unnamed;
    enterOwnRecord(record.release(), false);
    return ownRecord();
}

/// The kernel's name of a thread of any process.
struct FoundName {
    KernelName name{};
    bool ownProcess = false;
};

std::optional<FoundName> findKernelName(unsigned int threadId) {
    for (const bool ownProcess : {true, false}) {
        std::array<char, 80> text;
        const ProcPath path(ownProcess ? "/proc/self/task/" : "/proc/", threadId, "/comm");
        const std::string_view line = readProcFile(path, text.data(), text.size());
        if (!line.empty()) {
            FoundName found{{}, ownProcess};
            // A thread of the kernel's own may have a longer name.
            const std::string_view name = line.substr(0, line.find_last_of('\n'));
            std::copy_n(name.data(), std::min(name.size(), found.name.size() - 1),
                        found.name.data());
            return found;
        }
    }
    return std::nullopt;
}

// Of a thread of this process without a record. In the last moment of a thread the kernel still has
// its file, of the first one for as long as others run; then no name of its own counts.
std::string nameWithoutRecord(const KernelName& inKernel, unsigned int threadId) {
    return nobodyGave(inKernel) || stateOfOwnTask(threadId) != TaskState::Live ? std::string()
                                                                               : textOf(inKernel);
}

// What the kernel's name of a thread of this process means. None when the name changed between
// the look at the kernel and this one.
std::optional<std::string> nameBehind(const KernelName& inKernel, unsigned int threadId,
                                      std::optional<unsigned long long> changesBefore) {
    const LookAtRecord look(threadId);
    const ThreadRecord* const record = look.get();
    if (record == nullptr) {
        return nameWithoutRecord(inKernel, threadId);
    }
    if (inKernel == record->current.inKernel) {
        return record->current.whole;
    }
    if (record->changing && inKernel == record->previous.inKernel) {
        return record->previous.whole;
    }
    // The kernel lets a name be read while it is written: during a change, a third name is parts of
    // the two.
    if (record->changing || changesBefore != record->changes) {
        return std::nullopt;
    }
    return textOf(inKernel);
}

std::optional<unsigned long long> changesOf(unsigned int threadId) {
    const LookAtRecord look(threadId);
    return look.get() == nullptr ? std::nullopt : std::optional(look.get()->changes);
}

/// What is kept of the name of a thread that lives.
std::optional<std::string> keptName(unsigned int threadId) {
    const LookAtRecord look(threadId);
    return look.get() == nullptr ? std::nullopt : std::optional(look.get()->current.whole);
}

// Nobody else changes the calling thread's record, therefore one look without a lock is enough. The
// kernel is asked all the same: other code may have named the thread, and a scope that took such a
// name for its own would put back the wrong one.
std::string readOwnName() {
    const KernelName inKernel = ownKernelName();
    const ThreadRecord* const record = ownRecord();
    if (record == nullptr) {
        return nobodyGave(inKernel) ? std::string() : textOf(inKernel);
    }
    return inKernel == record->current.inKernel ? record->current.whole : textOf(inKernel);
}

KernelName fileNameOf(std::string_view path) noexcept {
    KernelName result{};
    const std::string_view name = path.substr(path.find_last_of('/') + 1);
    std::copy_n(name.data(), std::min(name.size(), result.size() - 1), result.data());
    return result;
}

std::optional<KernelName> firstThreadsKernelName() noexcept {
    if (gettid() == getpid()) {
        return ownKernelName();
    }
    std::array<char, 32> text;
    const auto id = static_cast<unsigned int>(getpid());
    const std::string_view line =
        readProcFile(ProcPath("/proc/", id, "/comm"), text.data(), text.size());
    return line.empty() ? std::nullopt
                        : std::optional(fileNameOf(line.substr(0, line.find_last_of('\n'))));
}

// The kernel names a program after the file that was executed. The path that the program was told
// is that of another file where it was started through the dynamic loader or by a descriptor. At a
// late load, neither may be left: then other code has named the first thread since.
KernelName findProgramName() noexcept {
    const auto* const told = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
    const std::optional<KernelName> now = firstThreadsKernelName();
    if (told == nullptr) {
        return now.value_or(KernelName{});
    }
    std::array<char, 4096> file;
    const ssize_t length = readlink("/proc/self/exe", file.data(), file.size());
    if (length > 0 && now == fileNameOf({file.data(), static_cast<std::size_t>(length)})) {
        return *now;
    }
    return fileNameOf(told);
}

__attribute__((constructor(101))) void noteProgramName() {
    programName = findProgramName();
}

}  // namespace

KernelName ownKernelName() noexcept {
    KernelName name{};
    prctl(PR_GET_NAME, name.data());
    // The kernel does not promise what follows the NUL.
    std::fill(name.begin() + strnlen(name.data(), name.size()), name.end(), '\0');
    return name;
}

void nameAfterProgram(ThreadRecord& record) noexcept {
    record.unnamed = record.current.inKernel = programName;
}

void setOwnThreadName(std::string_view name) {
    currentThreadId();  // notices where this is a fork child
    ThreadRecord* const record = ownRecord() != nullptr ? ownRecord() : makeOwnRecord();
    // Nobody else looks at `previous` here; its memory is used again.
    record->previous.whole.assign(name);
    record->previous.inKernel = name.empty() ? record->unnamed : kernelPrefix(name);
    if (!name.empty()) {
        givenNames.add(record->previous.inKernel);
    }
    {
        const LookAtRecord look(record->threadId);
        std::swap(record->current, record->previous);
        record->changing = true;
        ++record->changes;
    }
    // Whoever reads the kernel's name before this line finds the previous name for it, after it
    // the current one.
    prctl(PR_SET_NAME, record->current.inKernel.data());
    const LookAtRecord look(record->threadId);
    record->changing = false;
    // Because a reader may have read the kernel's name before that line and comes here after it,
    // the end counts as a change too; otherwise the previous name would look like somebody else's.
    ++record->changes;
}

std::string readThreadName(unsigned int threadId) {
    if (threadId == currentThreadId()) {
        return readOwnName();
    }
    // A thread that names itself all the time may outrun a reader; after some tries its latest
    // name is true enough.
    constexpr int mostTries = 16;
    std::optional<FoundName> found;
    for (int tries = 0; tries < mostTries; ++tries) {
        const auto changes = changesOf(threadId);
        found = findKernelName(threadId);
        if (!found || !found->ownProcess) {
            break;
        }
        if (auto name = nameBehind(found->name, threadId, changes)) {
            return *std::move(name);
        }
    }
    // The kernel's files may be out of reach (no descriptor is free) while the kept name is not.
    if (auto name = keptName(threadId)) {
        return *std::move(name);
    }
    if (!found) {
        return {};
    }
    return found->ownProcess ? nameWithoutRecord(found->name, threadId) : textOf(found->name);
}

}  // namespace ThreadUtilities::platform
