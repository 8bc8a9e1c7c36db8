// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// What a stop does to the thread that is stopped: nothing that it could see.

#include "process/seized_thread.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <functional>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "target_process.h"

namespace ThreadUtilities {
namespace {

using process::SeizedThread;

/// As a worker does, on a thread that ends afterwards.
void onThread(const std::function<void(SeizedThread&)>& body, unsigned int threadId) {
    std::thread([&] {
        std::optional<SeizedThread> seized;
        // What the last thread did not let go, its end does, a little after it can be joined.
        ASSERT_TRUE(eventually([&] { return seized.emplace(threadId).error() == 0; }));
        body(*seized);
    }).join();
}

void stopAndLetGo(unsigned int threadId) {
    onThread(
        [](SeizedThread& seized) {
            platform::Registers registers{};
            ASSERT_TRUE(seized.stop(registers));
            ASSERT_TRUE(seized.letGo());
        },
        threadId);
}

void limitTime(int socket) {
    const timeval limit{1000, 0};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
}

int receiver() {
    int pair[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
    limitTime(pair[0]);
    return pair[0];
}

int fullSender() {
    const int sender = receiver();
    const std::vector<char> bytes(4096);
    while (send(sender, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
    }
    return sender;
}

int filledPipe() {
    int ends[2];
    return pipe(ends) == 0 && write(ends[1], "byte", 4) == 4 ? ends[0] : -1;
}

/// Where nobody gets a connection any more.
sockaddr_in fullListener() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    bind(listener, any, size);
    getsockname(listener, any, &size);
    listen(listener, 0);
    for (int i = 0; i < 3; ++i) {
        connect(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0), any, size);
    }
    return address;
}

int nothingToMake() {
    return 0;
}

/// Each waits for what never comes, by a call that a stop ends with EINTR or that the kernel itself
/// takes up again.
std::vector<TargetProcess::Body> waits() {
    const auto waiting = [](auto make, auto wait) {
        return [make, wait](Told& told) {
            for (const auto made = make();; ++told.earlyReturns) {
                wait(made);
            }
        };
    };
    return {
        waiting([] { return epoll_create1(0); },
                [](int epoll) {
                    epoll_event event;
                    epoll_wait(epoll, &event, 1, 1000'000);
                }),
        waiting(nothingToMake,
                [](int) {
                    sigset_t set;
                    sigemptyset(&set);
                    sigaddset(&set, SIGUSR2);
                    const timespec limit{1000, 0};
                    sigtimedwait(&set, nullptr, &limit);
                }),
        waiting(receiver,
                [](int socket) {
                    char byte;
                    recv(socket, &byte, 1, 0);
                }),
        waiting(receiver,
                [](int socket) {
                    char byte;
                    return read(socket, &byte, 1);
                }),
        waiting(fullListener,
                [](const sockaddr_in& address) {
                    const int connecting = socket(AF_INET, SOCK_STREAM, 0);
                    limitTime(connecting);
                    connect(connecting, reinterpret_cast<const sockaddr*>(&address),
                            sizeof(address));
                }),
        waiting([] { return std::pair(filledPipe(), fullSender()); },
                [](const std::pair<int, int>& ends) {
                    splice(ends.first, nullptr, ends.second, nullptr, 1, 0);
                }),
        waiting(nothingToMake, [](int) { poll(nullptr, 0, 1000'000); }),
        waiting(nothingToMake,
                [](int) {
                    timespec time{1000, 0};
                    nanosleep(&time, &time);
                }),
    };
}

TEST(SeizedThread, LeavesWaitsAsTheyWere) {
    TargetProcess target(waits());
    const Told& told = target.tells();
    for (unsigned int i = 0; i < told.threadCount; ++i) {
        ASSERT_TRUE(becomes(target.id(), target.thread(i), 'S'));
        for (int round = 0; round < 50; ++round) {
            stopAndLetGo(target.thread(i));
        }
        ASSERT_TRUE(becomes(target.id(), target.thread(i), 'S'));
        EXPECT_EQ(told.earlyReturns, 0) << "the wait number " << i;
    }
    EXPECT_TRUE(target.endsWell());
}

std::atomic<long>* countedSignals;

// A signal that arrives while the thread is seized is delivered, once, and ends a wait as ever.
TEST(SeizedThread, PassesSignalsOn) {
    TargetProcess target({[](Told& told) {
        countedSignals = &told.signals;
        struct sigaction action{};
        action.sa_handler = [](int) { ++*countedSignals; };
        sigaction(SIGUSR1, &action, nullptr);
        ++told.progress;
        const int epoll = epoll_create1(0);
        epoll_event event;
        for (;;) {
            told.earlyReturns += epoll_wait(epoll, &event, 1, -1) < 0 && errno == EINTR ? 1 : 0;
        }
    }});
    const Told& told = target.tells();
    ASSERT_TRUE(eventually([&] { return told.progress == 1; }));
    const auto send = [&] { syscall(SYS_tgkill, target.id(), target.thread(0), SIGUSR1); };
    for (int sent = 1; sent <= 200; ++sent) {
        onThread(
            [&](SeizedThread& seized) {
                platform::Registers registers{};
                if (sent % 2 == 0) {
                    send();
                }
                ASSERT_TRUE(seized.stop(registers));
                if (sent % 2 != 0) {
                    send();
                }
                if (sent % 3 != 0) {
                    ASSERT_TRUE(seized.letGo());
                }  // else this thread's end lets it go
            },
            target.thread(0));
        ASSERT_TRUE(eventually([&] { return told.signals >= sent; }));
        ASSERT_TRUE(becomes(target.id(), target.thread(0), 'S'));
        ASSERT_EQ(told.signals, sent);
        ASSERT_EQ(told.earlyReturns, sent);
    }
    EXPECT_TRUE(target.endsWell());
}

TEST(SeizedThread, LeavesAStoppedProcessStopped) {
    TargetProcess target({spin});
    kill(static_cast<pid_t>(target.id()), SIGSTOP);
    ASSERT_TRUE(becomes(target.id(), target.thread(0), 'T'));
    for (int round = 0; round < 50; ++round) {
        stopAndLetGo(target.thread(0));
        ASSERT_TRUE(becomes(target.id(), target.thread(0), 'T'));
    }
    const long before = target.tells().progress;
    usleep(1000);
    EXPECT_EQ(target.tells().progress, before);
    kill(static_cast<pid_t>(target.id()), SIGCONT);
    EXPECT_TRUE(target.goesOn());
}

// A thread that waits for its vfork child comes to no stop until that child ends.
TEST(SeizedThread, WaitsForAThreadThatDoesNotStop) {
    TargetProcess target({[](Told& told) {
        for (;;) {
            const long before = told.signals;
            const pid_t child = vfork();
            if (child == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                ++told.earlyReturns;
                while (told.signals == before) {
                    usleep(1000);
                }
                _exit(0);
            }
            waitpid(child, nullptr, 0);
            ++told.progress;
        }
    }});
    for (long round = 0; round < 10; ++round) {
        ASSERT_TRUE(eventually([&] { return target.tells().earlyReturns == round + 1; }));
        ASSERT_TRUE(becomes(target.id(), target.thread(0), 'D'));
        onThread(
            [&](SeizedThread& seized) {
                platform::Registers registers{};
                std::thread end([&] { ++target.tells().signals; });
                EXPECT_TRUE(seized.stop(registers));
                EXPECT_TRUE(seized.letGo());
                end.join();
            },
            target.thread(0));
        ASSERT_TRUE(eventually([&] { return target.tells().progress == round + 1; }));
    }
    EXPECT_EQ(statusOf(target.id(), target.thread(0), "TracerPid"), "0");
}

}  // namespace
}  // namespace ThreadUtilities
