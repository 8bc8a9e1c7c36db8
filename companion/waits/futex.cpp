// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <linux/futex.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "support/hex_text.h"
#include "support/terminal.h"
#include "waits/locks.h"
#include "waits/times.h"
#include "waits/wait.h"

namespace ThreadUtilities::companion {
namespace {

enum class Lock {
    unknown,
    mutex,
    reader,
    writer,
    condition,
    semaphore,
    join,
    barrier,
    once,
    staticGuard,
    future,
    ofCLibrary,
};

struct LockName {
    std::string_view begin;
    Lock lock;
};

/// How the functions begin that wait, without underscores before them.
constexpr std::array lockNames = {
    LockName{"pthread_mutex_", Lock::mutex},
    LockName{"lll_mutex_lock", Lock::mutex},
    LockName{"pthread_rwlock_rdlock", Lock::reader},
    LockName{"pthread_rwlock_timedrdlock", Lock::reader},
    LockName{"pthread_rwlock_clockrdlock", Lock::reader},
    LockName{"pthread_rwlock_wrlock", Lock::writer},
    LockName{"pthread_rwlock_timedwrlock", Lock::writer},
    LockName{"pthread_rwlock_clockwrlock", Lock::writer},
    LockName{"pthread_cond_", Lock::condition},
    LockName{"sem_", Lock::semaphore},
    LockName{"new_sem_", Lock::semaphore},
    LockName{"pthread_join", Lock::join},
    LockName{"pthread_timedjoin", Lock::join},
    LockName{"pthread_clockjoin", Lock::join},
    LockName{"pthread_barrier_wait", Lock::barrier},
    LockName{"pthread_once", Lock::once},
    LockName{"cxa_guard_acquire", Lock::staticGuard},
    LockName{"std::__atomic_futex_unsigned_base", Lock::future},
};

struct NamedLock {
    Lock lock = Lock::unknown;
    /// What the program called.
    std::string_view function;
};

/// By the innermost function that says it. Functions of the C library that say nothing are passed
/// over; one of the program's ends the search, because what it was called from tells nothing.
NamedLock lockByNames(const std::vector<CalledFunction>& functions) {
    NamedLock found;
    for (const CalledFunction& function : functions) {
        std::string_view name = function.name;
        name.remove_prefix(std::min(name.find_first_not_of('_'), name.size()));
        const auto known =
            std::find_if(lockNames.begin(), lockNames.end(), [&](const LockName& each) {
                return name.starts_with(each.begin) || function.name.starts_with(each.begin);
            });
        if (known != lockNames.end()) {
            return {known->lock, function.name};
        }
        const bool onlyWaits = name.starts_with("lll_") || name.starts_with("futex") ||
                               name.starts_with("syscall") || name.starts_with("internal_syscall");
        if (!onlyWaits && !function.isOfCLibrary) {
            break;
        }
        if (!onlyWaits) {
            found = {Lock::ofCLibrary, function.name};
        }
    }
    return found;
}

/// The system call's arguments, and what is worked out of them.
class FutexWait {
 public:
    FutexWait(const Target& processOfThread, unsigned int waitingThread, const ThreadLook& look,
              const std::vector<CalledFunction>& functions)
        : target(processOfThread),
          threadId(waitingThread),
          address(look.arguments[0]),
          operation(static_cast<int>(look.arguments[1])),
          value(static_cast<std::uint32_t>(look.arguments[2])),
          timeAddress(look.arguments[3]),
          named(lockByNames(functions)) {}

    Wait decode() {
        wait.address = address;
        addTime();
        if (command() == FUTEX_LOCK_PI || command() == FUTEX_LOCK_PI2) {
            setMutex(readMutex(target, address), false);
            dropOwnHold();
        } else if (command() == FUTEX_WAIT && value == lockedWithWaiters &&
                   named.lock == Lock::condition) {
            // The mutex that a condition variable's waiter takes again.
            setMutex(readMutex(target, address), false);
        } else if (named.lock == Lock::unknown || named.lock == Lock::ofCLibrary) {
            decodeByContent();
        } else {
            decodeByName();
        }
        return wait;
    }

 private:
    /// What a lock of the C library is set to by those that wait for it.
    static constexpr std::uint32_t lockedWithWaiters = 2;

    int command() const { return operation & FUTEX_CMD_MASK; }

    void addTime() {
        if (timeAddress == 0) {
            return;
        }
        wait.isTimed = true;
        if (command() == FUTEX_WAIT) {
            const auto duration = readDuration(target, timeAddress);
            wait.time = duration ? atMost(*duration) : untilThen(std::nullopt);
            return;
        }
        const bool isRealTime =
            command() == FUTEX_LOCK_PI || (operation & FUTEX_CLOCK_REALTIME) != 0;
        wait.time = untilThen(
            readTimeUntil(target, isRealTime ? CLOCK_REALTIME : CLOCK_MONOTONIC, timeAddress));
    }

    void setWords(std::string_view kind, std::string_view what) {
        wait.kind = kind;
        wait.words = "waits for " + std::string(what) + " at " + hexText(wait.address);
    }

    /// `idInside` as the process numbers threads.
    void setHolder(unsigned int idInside, bool isShared) {
        if (idInside == 0) {
            return;
        }
        wait.holder = idInside;
        if (const TargetThread* const holder = target.threadInside(idInside)) {
            wait.holderKind = HolderKind::thread;
            wait.holder = holder->id;
            wait.holderWords = ", which " + target.label(holder->id) + " holds";
            return;
        }
        const std::string thread = "thread " + std::to_string(idInside);
        const TargetThread* const leader =
            target.threads().empty() ? nullptr : &target.threads().front();
        const bool isOlder = leader != nullptr && idInside < leader->idInside;
        wait.holderKind = HolderKind::foreign;
        if (isShared) {
            setForeignHolder(idInside);
        } else if (livesElsewhere(idInside)) {
            wait.holderWords =
                ", which " + thread + " of another process took, perhaps before a fork";
        } else if (isOlder) {
            // A fork child inherits the locks with the ids of its parent, which are lower; whether
            // the thread that forked still holds them cannot be seen.
            wait.holderWords = ", taken by " + thread + ", perhaps before a fork";
        } else {
            wait.holderKind = HolderKind::ended;
            wait.holderWords = ", whose holder, " + thread + ", has ended";
        }
    }

    bool livesElsewhere(unsigned int id) const {
        std::error_code ignored;
        return target.sharesIds() &&
               std::filesystem::exists("/proc/" + std::to_string(id), ignored);
    }

    void setForeignHolder(unsigned int id) {
        if (!target.sharesIds()) {
            wait.holderWords = ", which thread " + std::to_string(id) + " of another process holds";
        } else if (livesElsewhere(id)) {
            wait.holderWords = ", which " + printable(processName(id)) + " (thread " +
                               std::to_string(id) + " of another process) holds";
        } else {
            wait.holderKind = HolderKind::ended;
            wait.holderWords = ", whose holder, thread " + std::to_string(id) + ", has ended";
        }
    }

    void setMutex(const std::optional<MutexContent>& content, bool isGuess) {
        if (!content) {
            wait.kind = "mutex";
            wait.words = "waits for a mutex (it lies about " + hexText(address) + ')';
            return;
        }
        wait.isGuess = isGuess;
        setWords("mutex", content->isRobust           ? "the robust mutex"
                          : content->inheritsPriority ? "the priority-inheriting mutex"
                                                      : "the mutex");
        setHolder(content->holder, content->isShared);
    }

    /// The kernel hands such a mutex over to a thread that has yet to run, and lets none wait for
    /// itself.
    void dropOwnHold() {
        if (wait.holderKind == HolderKind::thread && wait.holder == threadId) {
            wait.holderKind = HolderKind::none;
            wait.holder = 0;
            wait.holderWords = ", which it is just given";
        }
    }

    void setReadWriteLock(bool toWrite) {
        wait.kind = "read-write lock";
        const auto content = readReadWriteLock(target, address, value);
        wait.address = content ? content->address : address;
        setWords("read-write lock", "the read-write lock");
        wait.words += toWrite ? " to write" : " to read";
        if (content && content->writer != 0) {
            setHolder(content->writer, content->isShared);
        } else if (content && toWrite && content->readers > 0) {
            wait.holderWords = ", which " + std::to_string(content->readers) +
                               (content->readers == 1 ? " reader holds" : " readers hold");
        }
    }

    /// True where the word is that of a thread's id, which the kernel clears at its end.
    bool setJoin() {
        const unsigned int id = threadOfIdWord(target, address);
        const TargetThread* const joined = id == value ? target.threadInside(id) : nullptr;
        if (joined == nullptr) {
            return false;
        }
        wait.kind = "join";
        wait.words = "waits for the end of " + target.label(joined->id);
        wait.holderKind = HolderKind::thread;
        wait.holder = joined->id;
        return true;
    }

    void decodeByName() {
        switch (named.lock) {
            case Lock::mutex:
                setMutex(readMutex(target, address), false);
                return;
            case Lock::reader:
            case Lock::writer:
                setReadWriteLock(named.lock == Lock::writer);
                return;
            case Lock::condition:
                wait.address = conditionAt(address);
                setWords("condition variable", "the condition variable");
                return;
            case Lock::semaphore:
                setWords("semaphore", "the semaphore");
                return;
            case Lock::join:
                if (!setJoin()) {
                    wait.kind = "join";
                    wait.words = "waits for the end of a thread";
                }
                return;
            case Lock::barrier:
                setWords("barrier", "the other threads of the barrier");
                return;
            case Lock::once:
                setWords("once", "another thread in the function to be called once");
                return;
            case Lock::staticGuard:
                setWords("static", "another thread that initialises the static variable guarded");
                return;
            case Lock::future:
                setWords("future", "the future");
                return;
            case Lock::unknown:
            case Lock::ofCLibrary:
                return;
        }
    }

    /// Where no function's name says what it is.
    void decodeByContent() {
        const bool isPrivate = (operation & FUTEX_PRIVATE_FLAG) != 0;
        if (!isPrivate && setJoin()) {
            return;
        }
        const auto mutex = readMutex(target, address);
        if ((value & hasWaiters) != 0 && mutex && mutex->isRobust &&
            (mutex->isShared ? !isPrivate : target.threadInside(mutex->holder) != nullptr)) {
            setMutex(mutex, !mutex->isListed);
        } else if (value == lockedWithWaiters && mutex && mutex->hasUsers &&
                   target.threadInside(mutex->holder) != nullptr) {
            setMutex(mutex, true);
        } else if (value == lockedWithWaiters && named.lock == Lock::ofCLibrary) {
            setWords("lock", "a lock of the C library, in " + std::string(named.function) + ',');
            setStreamHolder();
        } else if (isSemaphore()) {
            wait.isGuess = true;
            setWords("semaphore", "the semaphore");
        } else {
            setWords("futex", "the value");
            wait.words += " to change from " + std::to_string(value);
        }
    }

    /// The lock of a stream (stdio) has its holder's block behind a count, which newer C libraries
    /// begin with 0.
    void setStreamHolder() {
        struct {
            int lock;
            int count;
            std::uint64_t holder;
        } stream = {};
        if (!target.read(address, stream) || stream.count < 0) {
            return;
        }
        if (const unsigned int holder = threadOfBlock(target, stream.holder); holder != 0) {
            setHolder(holder, false);
        }
    }

    /// Its value is 0, and behind it stands how many wait.
    bool isSemaphore() const {
        constexpr std::uint32_t mostWaiters = 1 << 20;
        std::array<std::uint32_t, 2> words = {};
        return command() == FUTEX_WAIT_BITSET && value == 0 && address % sizeof(words) == 0 &&
               target.read(address, words) && words[0] == 0 && words[1] > 0 &&
               words[1] < mostWaiters;
    }

    const Target& target;
    unsigned int threadId;
    std::uint64_t address;
    int operation;
    std::uint32_t value;
    std::uint64_t timeAddress;
    NamedLock named;
    Wait wait;
};

}  // namespace

Wait futexWait(const Target& target, unsigned int threadId, const ThreadLook& look,
               const std::vector<CalledFunction>& functions) {
    const int command = static_cast<int>(look.arguments[1]) & FUTEX_CMD_MASK;
    const bool isWait = command == FUTEX_WAIT || command == FUTEX_WAIT_BITSET ||
                        command == FUTEX_LOCK_PI || command == FUTEX_LOCK_PI2 ||
                        command == FUTEX_WAIT_REQUEUE_PI;
    if (!isWait) {
        Wait wait;
        wait.kind = "futex";
        wait.words = "is in a futex call that does not wait";
        return wait;
    }
    return FutexWait(target, threadId, look, functions).decode();
}

}  // namespace ThreadUtilities::companion
