// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "waits/times.h"
#include "waits/wait.h"

namespace ThreadUtilities::companion {
namespace {

struct FileCall {
    long number;
    std::string_view kind;
    /// What it does to the descriptor that is its first argument.
    std::string_view verb;
};

constexpr std::array fileCalls = {
    FileCall{SYS_read, "read", "reads from"},
    FileCall{SYS_pread64, "read", "reads from"},
    FileCall{SYS_readv, "read", "reads from"},
    FileCall{SYS_preadv, "read", "reads from"},
    FileCall{SYS_preadv2, "read", "reads from"},
    FileCall{SYS_recvfrom, "read", "receives from"},
    FileCall{SYS_recvmsg, "read", "receives from"},
    FileCall{SYS_recvmmsg, "read", "receives from"},
    FileCall{SYS_getdents64, "read", "lists"},
    FileCall{SYS_write, "write", "writes to"},
    FileCall{SYS_pwrite64, "write", "writes to"},
    FileCall{SYS_writev, "write", "writes to"},
    FileCall{SYS_pwritev, "write", "writes to"},
    FileCall{SYS_pwritev2, "write", "writes to"},
    FileCall{SYS_sendto, "write", "sends to"},
    FileCall{SYS_sendmsg, "write", "sends to"},
    FileCall{SYS_sendmmsg, "write", "sends to"},
    FileCall{SYS_sendfile, "write", "sends to"},
    FileCall{SYS_splice, "read", "splices from"},
    FileCall{SYS_accept, "accept", "accepts connections at"},
    FileCall{SYS_accept4, "accept", "accepts connections at"},
    FileCall{SYS_connect, "connect", "connects"},
    FileCall{SYS_fsync, "sync", "waits until the disk has"},
    FileCall{SYS_fdatasync, "sync", "waits until the disk has"},
    FileCall{SYS_syncfs, "sync", "waits until the disk has all of"},
    FileCall{SYS_flock, "file lock", "waits for the lock of"},
    FileCall{SYS_fcntl, "file lock", "waits for a lock in"},
    FileCall{SYS_ioctl, "device", "waits in a request to"},
    FileCall{SYS_io_uring_enter, "read", "waits for"},
};
constexpr std::array manyFilesCalls = {SYS_poll,        SYS_ppoll,      SYS_select,
                                       SYS_pselect6,    SYS_epoll_wait, SYS_epoll_pwait,
                                       SYS_epoll_pwait2};

/// A descriptor that a thread waits for together with others.
struct Awaited {
    int descriptor;
    bool toRead;
    bool toWrite;
};

constexpr std::size_t mostShown = 6;
constexpr std::size_t mostRead = 4096;

std::string listOf(Descriptors& descriptors, const std::vector<Awaited>& all) {
    std::string text;
    for (std::size_t index = 0; index < std::min(all.size(), mostShown); ++index) {
        const Awaited& each = all[index];
        const std::string_view purpose = each.toWrite
                                             ? each.toRead ? "to read or write" : "to write"
                                         : each.toRead ? "to read"
                                                       : "for errors";
        text += (index == 0 ? "" : ", ") + descriptors.describe(each.descriptor, purpose);
    }
    if (all.size() > mostShown) {
        text += " and " + std::to_string(all.size() - mostShown) + " more";
    }
    return text;
}

std::vector<Awaited> pollList(const Target& target, const ThreadLook& look) {
    std::vector<Awaited> all;
    const std::size_t count = std::min<std::uint64_t>(look.arguments[1], mostRead);
    for (const pollfd& each : target.readArray<pollfd>(look.arguments[0], count)) {
        if (each.fd >= 0) {
            all.push_back({each.fd, (each.events & (POLLIN | POLLRDNORM)) != 0,
                           (each.events & (POLLOUT | POLLWRNORM)) != 0});
        }
    }
    return all;
}

/// Sets of bits: to read, to write, for exceptions.
std::vector<Awaited> selectList(const Target& target, const ThreadLook& look) {
    constexpr std::size_t bits = CHAR_BIT * sizeof(std::uint64_t);
    const std::size_t count = std::min<std::uint64_t>(look.arguments[0], mostRead);
    std::array<std::vector<std::uint64_t>, 3> sets;
    for (std::size_t set = 0; set < sets.size(); ++set) {
        if (look.arguments[set + 1] != 0) {
            sets[set] =
                target.readArray<std::uint64_t>(look.arguments[set + 1], (count + bits - 1) / bits);
        }
    }
    const auto has = [&](std::size_t set, std::size_t descriptor) {
        return descriptor / bits < sets[set].size() &&
               (sets[set][descriptor / bits] >> descriptor % bits & 1) != 0;
    };
    std::vector<Awaited> all;
    for (std::size_t each = 0; each < count; ++each) {
        if (has(0, each) || has(1, each) || has(2, each)) {
            all.push_back({static_cast<int>(each), has(0, each), has(1, each)});
        }
    }
    return all;
}

std::vector<Awaited> epollList(const Descriptors& descriptors, int epoll) {
    std::vector<Awaited> all;
    for (const Descriptors::Member& each : descriptors.epollMembers(epoll)) {
        all.push_back(
            {each.descriptor, (each.events & EPOLLIN) != 0, (each.events & EPOLLOUT) != 0});
    }
    return all;
}

/// How long at most; nothing where it is without an end.
std::optional<std::int64_t> timeoutOf(const Target& target, const ThreadLook& look) {
    constexpr std::int64_t perMillisecond = 1'000'000;
    const auto milliseconds = [](std::uint64_t argument) {
        const auto time = static_cast<std::int32_t>(argument);
        return time < 0 ? std::nullopt
                        : std::optional<std::int64_t>(std::int64_t{time} * perMillisecond);
    };
    switch (look.systemCall) {
        case SYS_poll:
            return milliseconds(look.arguments[2]);
        case SYS_epoll_wait:
        case SYS_epoll_pwait:
            return milliseconds(look.arguments[3]);
        case SYS_epoll_pwait2:
            return readDuration(target, look.arguments[3]);
        case SYS_ppoll:
            return readDuration(target, look.arguments[2]);
        case SYS_pselect6:
            return readDuration(target, look.arguments[4]);
        case SYS_select: {
            timeval time = {};
            if (look.arguments[4] == 0 || !target.read(look.arguments[4], time)) {
                return std::nullopt;
            }
            return time.tv_sec * 1'000 * perMillisecond + time.tv_usec * 1'000;
        }
        default:
            return std::nullopt;
    }
}

bool isEpoll(long call) {
    return call == SYS_epoll_wait || call == SYS_epoll_pwait || call == SYS_epoll_pwait2;
}

Wait waitForMany(const WaitSources& sources, const ThreadLook& look) {
    Wait wait;
    const auto epoll = static_cast<int>(look.arguments[0]);
    const bool isPoll = look.systemCall == SYS_poll || look.systemCall == SYS_ppoll;
    const std::vector<Awaited> all = isEpoll(look.systemCall)
                                         ? epollList(sources.descriptors, epoll)
                                     : isPoll ? pollList(sources.target, look)
                                              : selectList(sources.target, look);
    const auto timeout = timeoutOf(sources.target, look);
    wait.isTimed = timeout.has_value();
    wait.time = timeout ? atMost(*timeout) : "";
    wait.kind = isEpoll(look.systemCall) ? "epoll" : isPoll ? "poll" : "select";
    if (isEpoll(look.systemCall)) {
        wait.words = "waits (epoll, descriptor " + std::to_string(epoll) + ") for " +
                     (all.empty() ? "nothing that can be seen" : listOf(sources.descriptors, all));
    } else if (!all.empty()) {
        wait.words =
            "waits (" + std::string(wait.kind) + ") for " + listOf(sources.descriptors, all);
    } else {
        wait.words =
            timeout ? "sleeps" : "waits (" + std::string(wait.kind) + ") for no descriptor";
    }
    return wait;
}

}  // namespace

bool isFileCall(long systemCall) {
    return std::find(manyFilesCalls.begin(), manyFilesCalls.end(), systemCall) !=
               manyFilesCalls.end() ||
           std::any_of(fileCalls.begin(), fileCalls.end(),
                       [&](const FileCall& each) { return each.number == systemCall; });
}

Wait fileWait(const WaitSources& sources, const ThreadLook& look) {
    const auto call = std::find_if(fileCalls.begin(), fileCalls.end(), [&](const FileCall& each) {
        return each.number == look.systemCall;
    });
    if (call == fileCalls.end()) {
        return waitForMany(sources, look);
    }
    Wait wait;
    wait.kind = call->kind;
    wait.words = std::string(call->verb) + ' ' +
                 sources.descriptors.describe(static_cast<int>(look.arguments[0]));
    return wait;
}

}  // namespace ThreadUtilities::companion
