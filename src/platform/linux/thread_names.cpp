#include "platform/thread_names.h"

#include <sys/auxv.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <utility>

#include "platform/current.h"
#include "platform/linux/own_name.h"
#include "platform/linux/proc_file.h"
#include "platform/linux/thread_ends.h"
#include "platform/process_copy.h"

// The kernel keeps 15 bytes of a name, and any code may change them. What is kept here is the whole
// name together with the 15 bytes that stand for it: as long as the kernel's name is those bytes,
// the whole name holds; any other bytes were put there by somebody else and are the name.

namespace ThreadUtilities::platform {
namespace {

struct Name {
    std::string whole;
    KernelName inKernel{};
};

// Made and freed by the thread that it describes, which also is the only one that changes it, so
// that reading it there needs no lock. `previous` is read by others only while `changing`.
struct NameRecord {
    unsigned int threadId = 0;
    NameRecord* next = nullptr;
    /// What the kernel's name goes back to when the name is taken away.
    KernelName unnamed{};
    Name current;
    Name previous;
    bool changing = false;
    unsigned long long changes = 0;
};

// Other threads reach a record through its bucket, and hold the bucket's lock for as long as they
// look at it; the owner unlinks it under that lock before freeing it. No system call and no
// waiting happens under a lock.
struct Bucket {
    std::mutex mutex;
    NameRecord* first = nullptr;
};

constexpr std::size_t BucketCount = 256;

// Never destroyed: threads end, and are named, until the very end of the process.
union Buckets {
    Bucket all[BucketCount];
    constexpr Buckets() : all{} {}
    ~Buckets() {}
};
constinit Buckets buckets;

constinit thread_local NameRecord* ownRecord = nullptr;

// The name under which the program was started; threads that nobody named bear it too.
constinit KernelName programName{};

Bucket& bucketOf(unsigned int threadId) noexcept {
    return buckets.all[threadId % BucketCount];
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

void link(NameRecord& record) noexcept {
    Bucket& bucket = bucketOf(record.threadId);
    const std::lock_guard lock(bucket.mutex);
    record.next = bucket.first;
    bucket.first = &record;
}

void unlink(NameRecord& record) noexcept {
    Bucket& bucket = bucketOf(record.threadId);
    const std::lock_guard lock(bucket.mutex);
    for (NameRecord** link = &bucket.first; *link != nullptr; link = &(*link)->next) {
        if (*link == &record) {
            *link = record.next;
            return;
        }
    }
}

const NameRecord* find(const Bucket& bucket, unsigned int threadId) noexcept {
    const NameRecord* record = bucket.first;
    while (record != nullptr && record->threadId != threadId) {
        record = record->next;
    }
    return record;
}

// None when the thread's end would not be heard of: its record could never be freed.
NameRecord* makeOwnRecord(const KernelName& unnamed) {
    auto record = std::make_unique<NameRecord>();
    if (!hearOfOwnEnd()) {
        return nullptr;
    }
    record->threadId = currentThreadId();
    record->unnamed = unnamed;
    record->current.inKernel = unnamed;
    ownRecord = record.release();
    link(*ownRecord);
    return ownRecord;
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

// What the kernel's name of a thread of this process means. None when the name changed between
// the look at the kernel and this one.
std::optional<std::string> nameBehind(const KernelName& inKernel, unsigned int threadId,
                                      std::optional<unsigned long long> changesBefore) {
    Bucket& bucket = bucketOf(threadId);
    const std::lock_guard lock(bucket.mutex);
    const NameRecord* const record = find(bucket, threadId);
    if (record == nullptr) {
        if (changesBefore) {
            return std::nullopt;
        }
        return inKernel == programName ? std::string() : textOf(inKernel);
    }
    if (inKernel == record->current.inKernel) {
        return record->current.whole;
    }
    if (record->changing && inKernel == record->previous.inKernel) {
        return record->previous.whole;
    }
    if (changesBefore != record->changes) {
        return std::nullopt;
    }
    return textOf(inKernel);
}

std::optional<unsigned long long> changesOf(unsigned int threadId) {
    Bucket& bucket = bucketOf(threadId);
    const std::lock_guard lock(bucket.mutex);
    const NameRecord* const record = find(bucket, threadId);
    return record == nullptr ? std::nullopt : std::optional(record->changes);
}

// Nobody else changes the calling thread's record, therefore one look without a lock is enough. The
// kernel is asked all the same: other code may have named the thread, and a scope that took such a
// name for its own would put back the wrong one.
std::string readOwnName() {
    const KernelName inKernel = ownKernelName();
    if (ownRecord == nullptr) {
        return inKernel == programName ? std::string() : textOf(inKernel);
    }
    const Name& current = ownRecord->current;
    return inKernel == current.inKernel ? current.whole : textOf(inKernel);
}

// The calling thread's record was in nobody's hands, since only that thread changes it. The other
// records may be half changed; they stay where they are, unreachable.
RestartInCopy keepOnlyTheCallersName([] {
    for (Bucket& bucket : buckets.all) {
        new (&bucket) Bucket;
    }
    if (ownRecord != nullptr) {
        ownRecord->threadId = static_cast<unsigned int>(gettid());
        link(*ownRecord);
    }
});

__attribute__((constructor(101))) void noteProgramName() {
    const auto* const path = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
    if (path == nullptr) {
        programName = ownKernelName();
        return;
    }
    const std::string_view file(path);
    const std::string_view name = file.substr(file.find_last_of('/') + 1);
    std::copy_n(name.data(), std::min(name.size(), programName.size() - 1), programName.data());
}

}  // namespace

KernelName ownKernelName() noexcept {
    KernelName name{};
    prctl(PR_GET_NAME, name.data());
    // The kernel does not promise what follows the NUL.
    std::fill(name.begin() + strnlen(name.data(), name.size()), name.end(), '\0');
    return name;
}

void noteInheritedName(const KernelName& inherited) noexcept {
    // Without a record the program's own name means "not named" already.
    if (inherited == programName) {
        return;
    }
    try {
        makeOwnRecord(inherited);
    } catch (const std::bad_alloc&) {
        // The inherited name is then taken for the thread's own.
    }
}

void forgetOwnName() noexcept {
    if (NameRecord* const record = std::exchange(ownRecord, nullptr); record != nullptr) {
        unlink(*record);
        delete record;
    }
}

void setOwnThreadName(std::string_view name) {
    NameRecord* const record = ownRecord != nullptr ? ownRecord : makeOwnRecord(programName);
    if (record == nullptr) {
        prctl(PR_SET_NAME, name.empty() ? programName.data() : kernelPrefix(name).data());
        return;
    }
    Bucket& bucket = bucketOf(record->threadId);
    // Nobody else looks at `previous` here; its memory is used again.
    record->previous.whole.assign(name);
    record->previous.inKernel = name.empty() ? record->unnamed : kernelPrefix(name);
    {
        const std::lock_guard lock(bucket.mutex);
        std::swap(record->current, record->previous);
        record->changing = true;
        ++record->changes;
    }
    // Whoever reads the kernel's name before this line finds the previous name for it, after it
    // the current one.
    prctl(PR_SET_NAME, record->current.inKernel.data());
    const std::lock_guard lock(bucket.mutex);
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
    constexpr int Tries = 16;
    std::optional<FoundName> found;
    for (int tries = 0; tries < Tries; ++tries) {
        const auto changes = changesOf(threadId);
        found = findKernelName(threadId);
        if (!found || !found->ownProcess) {
            break;
        }
        if (auto name = nameBehind(found->name, threadId, changes)) {
            return *std::move(name);
        }
    }
    if (found && found->ownProcess) {
        Bucket& bucket = bucketOf(threadId);
        const std::lock_guard lock(bucket.mutex);
        if (const NameRecord* const record = find(bucket, threadId)) {
            return record->current.whole;
        }
    }
    return found ? textOf(found->name) : std::string();
}

}  // namespace ThreadUtilities::platform
