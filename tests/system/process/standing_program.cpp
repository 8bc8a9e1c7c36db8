// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// A program without the library. Its threads stand still in the kernel, below stacks of several
// kinds; it does what standing_process.h asks for on its standard input, and answers on its
// standard output.

#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>

namespace {

std::mutex mutex;
std::condition_variable never;
int releasePipe[2];

int standInRead() {
    char released = 0;
    return static_cast<int>(read(releasePipe[0], &released, 1));
}

[[gnu::noinline]] int standIn(int kind) {
    switch (kind % 4) {
        case 0:
            return poll(nullptr, 0, -1);
        case 1: {
            std::unique_lock lock(mutex);
            never.wait(lock, [] { return false; });
            return 0;
        }
        case 2:
            return static_cast<int>(sleep(1000000));
        default:
            return static_cast<int>(pthread_kill(pthread_self(), SIGUSR1));
    }
}

[[gnu::noinline]] int descend(int depth, int kind) {
    volatile char room[64];
    room[0] = 1;
    return (depth == 0 ? standIn(kind) : descend(depth - 1, kind)) + room[0];
}

struct Plugin {
    void* handle = nullptr;
    std::thread thread;

    void load(const char* path) {
        handle = dlopen(path, RTLD_NOW);
        if (handle == nullptr) {
            std::fprintf(stderr, "%s\n", dlerror());
            return;
        }
        const auto call = reinterpret_cast<int (*)(int (*)())>(dlsym(handle, "callThrough"));
        thread = std::thread([=] { call(&standInRead); });
    }
    void unload() {
        if (thread.joinable() && write(releasePipe[1], "", 1) == 1) {
            thread.join();
            dlclose(handle);
        }
    }
};

std::string copyToMemory(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    const int memory = memfd_create("plugin", 0);
    return write(memory, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size())
               ? "/proc/self/fd/" + std::to_string(memory)
               : "";
}

}  // namespace

int main(int, char** arguments) {
    signal(SIGUSR1, [](int) { pause(); });
    if (pipe(releasePipe) != 0) {
        return 1;
    }
    for (int kind = 0; kind < 8; ++kind) {
        std::thread([kind] { descend(3 * kind, kind); }).detach();
    }
    Plugin plugin;
    char line[4096];
    std::puts("ready");
    std::fflush(stdout);
    while (std::fgets(line, sizeof(line), stdin) != nullptr) {
        line[std::strcspn(line, "\n")] = 0;
        const char* const path = std::strchr(line, ' ') + 1;
        if (std::strncmp(line, "load ", 5) == 0) {
            plugin.load(path);
        } else if (std::strncmp(line, "memory ", 7) == 0) {
            plugin.load(copyToMemory(path).c_str());
        } else if (std::strncmp(line, "unload ", 7) == 0) {
            plugin.unload();
        } else {
            execv(path, arguments);
        }
        std::puts("done");
        std::fflush(stdout);
    }
    _exit(0);
}
