// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Captures threads that wait, each in another call, and tells how often they left their wait: for a
// moment within the kernel (a switch) or back into this code (an early return).

#include <ThreadUtilities/ThreadUtilities.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Wait {
    const char* name;
    void (*forever)();
    std::atomic<unsigned int> thread{0};
};

std::atomic<unsigned int> returns{0};
std::array<int, 2> emptyPipe;
std::array<int, 2> sockets;
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t free_ = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
sem_t semaphore;

// None of these calls returns unless it is disturbed.
std::array<Wait, 8> waits{{
    {"poll", [] { poll(nullptr, 0, -1); }},
    {"epoll_wait",
     [] {
         epoll_event event{};
         epoll_wait(epoll_create1(0), &event, 1, -1);
     }},
    {"nanosleep",
     [] {
         const timespec long_{100000, 0};
         nanosleep(&long_, nullptr);
     }},
    {"read",
     [] {
         char byte = 0;
         [[maybe_unused]] const auto got = read(emptyPipe[0], &byte, 1);
     }},
    {"mutex", [] { pthread_mutex_lock(&mutex); }},
    {"condition",
     [] {
         pthread_mutex_lock(&free_);
         pthread_cond_wait(&condition, &free_);
     }},
    {"semaphore", [] { sem_wait(&semaphore); }},
    {"recv",
     [] {
         char byte = 0;
         recv(sockets[0], &byte, 1, 0);
     }},
}};

std::string statusOf(unsigned int thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/status");
    return {std::istreambuf_iterator<char>(file), {}};
}

unsigned long switchesOf(const std::string& status) {
    unsigned long sum = 0;
    for (std::size_t at = 0; (at = status.find("ctxt_switches:", at)) != std::string::npos; ++at) {
        sum += std::strtoul(status.c_str() + at + 14, nullptr, 10);
    }
    return sum;
}

// Also through one that ran before it came to rest.
std::string statusAtRest(unsigned int thread) {
    for (int tries = 0; tries < 10000; ++tries) {
        std::string status = statusOf(thread);
        if (status.find("State:\tS") != std::string::npos) {
            return status;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::fprintf(stderr, "a thread does not come to rest\n");
    std::_Exit(2);
}

[[gnu::noinline]] void waitIn(Wait& wait) {
    wait.thread = ThreadUtilities::getThreadId();
    for (;;) {
        wait.forever();
        ++returns;
    }
}

}  // namespace

int main() {
    constexpr int captures = 100;
    if (pipe(emptyPipe.data()) != 0 || socketpair(AF_UNIX, SOCK_STREAM, 0, sockets.data()) != 0 ||
        pthread_mutex_lock(&mutex) != 0 || sem_init(&semaphore, 0, 0) != 0) {
        return 2;
    }
    for (Wait& wait : waits) {
        std::thread([&wait] { waitIn(wait); }).detach();
        while (wait.thread == 0) {
            std::this_thread::yield();
        }
    }
    bool areUntouched = true;
    for (Wait& wait : waits) {
        statusAtRest(wait.thread);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const unsigned long before = switchesOf(statusAtRest(wait.thread));
        const unsigned int returnsBefore = returns;
        int withFrames = 0;
        for (int capture = 0; capture < captures; ++capture) {
            std::array<unsigned long long, 64> frames{};
            withFrames +=
                ThreadUtilities::getStackTrace(wait.thread, frames.data(), frames.size(), true) > 2
                    ? 1
                    : 0;
        }
        const unsigned long switches = switchesOf(statusAtRest(wait.thread)) - before;
        const unsigned int early = returns - returnsBefore;
        if (withFrames != captures || switches != 0 || early != 0) {
            areUntouched = false;
            std::printf("%s: %d of %d with frames, %lu wake-ups, %u early returns\n", wait.name,
                        withFrames, captures, switches, early);
        }
    }
    std::printf("%s\n", areUntouched ? "untouched" : "TOUCHED");
    std::fflush(stdout);
    std::_Exit(areUntouched ? 0 : 1);
}
