// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process_target.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <new>
#include <string>
#include <thread>

namespace {

constexpr int depth = 12;

// Each frame keeps a word of its own until the call returns, so that it stays a frame.
[[gnu::noinline]] int descend(int level, Shared& shared, int wakeUp) {
    volatile int kept = level;
    if (level > 0) {
        return descend(level - 1, shared, wakeUp) + kept;
    }
    while (shared.ready > 0) {
        pollfd waited{wakeUp, POLLIN, 0};
        poll(&waited, 1, -1);
        std::uint64_t one = 0;
        if (read(wakeUp, &one, sizeof(one)) == sizeof(one)) {
            ++shared.wakes;
        }
    }
    return kept;
}

[[gnu::noinline]] int spin(int level, Shared& shared, bool isFirst) {
    volatile int kept = level;
    if (level > 0) {
        return spin(level - 1, shared, isFirst) + kept;
    }
    auto before = std::chrono::steady_clock::now();
    while (shared.ready > 0) {
        for (int i = 0; i < 100; ++i) {
            kept = kept + 1;
        }
        const auto now = std::chrono::steady_clock::now();
        const auto gap = static_cast<std::uint64_t>((now - before).count());
        before = now;
        if (isFirst) {
            shared.progress.fetch_add(1, std::memory_order_relaxed);
            if (gap > shared.longestGap.load(std::memory_order_relaxed)) {
                shared.longestGap.store(gap, std::memory_order_relaxed);
            }
        }
    }
    return kept;
}

[[noreturn]] void runTarget(Shared& shared, int blocked, int running, int wakeUp) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int i = 0; i < blocked + running; ++i) {
        std::thread([&shared, i, blocked, running, wakeUp] {
            shared.threads[static_cast<std::size_t>(i)] = gettid();
            ++shared.ready;
            if (i < blocked) {
                descend(depth, shared, wakeUp);
            } else {
                spin(depth, shared, i == blocked + running - 1);
            }
        }).detach();
    }
    for (;;) {
        pause();
    }
}

bool sleeps(pid_t process, pid_t thread) {
    std::ifstream file("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) +
                       "/syscall");
    std::string first;
    return file >> first && first != "running";
}

}  // namespace

// One semaphore for all blocked threads: whoever is woken takes one of as many as there are
// threads.
Target::Target(int blocked, int running)
    : shared(new(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                      -1, 0)) Shared),
      blockedCount(blocked),
      wakeUp(eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK)),
      child(fork()) {
    if (child == 0) {
        runTarget(*shared, blocked, running, wakeUp);
    }
    while (shared->ready != blocked + running) {
        usleep(1000);
    }
    for (int i = 0; i < blocked + running; ++i) {
        ids.push_back(shared->threads[static_cast<std::size_t>(i)]);
    }
    for (int i = 0; i < blocked; ++i) {
        while (!sleeps(child, ids[static_cast<std::size_t>(i)])) {
            usleep(100);
        }
    }
}

Target::~Target() {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(wakeUp);
    munmap(shared, sizeof(Shared));
}

void Target::wakeAll() const {
    const std::uint64_t before = shared->wakes;
    const auto count = static_cast<std::uint64_t>(blockedCount);
    if (write(wakeUp, &count, sizeof(count)) != sizeof(count)) {
        return;
    }
    while (shared->wakes < before + count) {
        usleep(100);
    }
    for (int i = 0; i < blockedCount; ++i) {
        while (!sleeps(child, ids[static_cast<std::size_t>(i)])) {
            usleep(100);
        }
    }
}
