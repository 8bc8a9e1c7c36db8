// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Thread ids, lists and names beside the bare system calls that they rest on.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include <ThreadUtilities/Threads.h>

namespace {

/// As many threads as asked for, this one included, which stand still.
class Crowd {
 public:
    explicit Crowd(std::int64_t size) {
        for (std::int64_t count = 1; count < size; ++count) {
            threads.emplace_back([this] { leave.wait(); });
        }
        // Every one has started once the list holds them all.
        while (ThreadIds::getThreadIds().size() < static_cast<std::size_t>(size)) {
            std::this_thread::yield();
        }
    }
    ~Crowd() {
        leave.count_down();
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

 private:
    std::latch leave{1};
    std::vector<std::thread> threads;
};

/// What listing costs at least: the kernel's entries, not even looked at.
void walkTaskFolder(const char* path) {
    const int folder = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    std::array<char, 32768> entries;
    while (syscall(SYS_getdents64, folder, entries.data(), entries.size()) > 0) {
        benchmark::DoNotOptimize(entries);
    }
    close(folder);
}

void getdentsOwnTaskFolder(benchmark::State& state) {
    const Crowd crowd(state.range(0));
    for (auto _ : state) {
        walkTaskFolder("/proc/self/task");
    }
}
BENCHMARK(getdentsOwnTaskFolder)->Arg(1)->Arg(100);

void ownThreadList(benchmark::State& state) {
    const Crowd crowd(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(ThreadIds::getThreadIds());
    }
}
BENCHMARK(ownThreadList)->Arg(1)->Arg(100);

// Through the fresh enumeration: what every call costs where the notices do not cover the list.
void ownThreadListEnumerated(benchmark::State& state) {
    const Crowd crowd(state.range(0));
    const auto process = static_cast<unsigned int>(getpid());
    for (auto _ : state) {
        benchmark::DoNotOptimize(ThreadIds::getThreadIds(process));
    }
}
BENCHMARK(ownThreadListEnumerated)->Arg(1)->Arg(100);

/// A copy of this process with as many threads as asked for.
class OtherProcess {
 public:
    explicit OtherProcess(std::int64_t threads) {
        std::array<int, 2> ready;
        if (pipe(ready.data()) != 0) {
            std::abort();
        }
        id = fork();
        if (id == 0) {
            const Crowd crowd(threads);
            if (write(ready[1], "", 1) == 1) {
                pause();
            }
            _exit(0);
        }
        char byte;
        if (read(ready[0], &byte, 1) != 1) {
            std::abort();
        }
        close(ready[0]);
        close(ready[1]);
    }
    ~OtherProcess() {
        kill(id, SIGKILL);
        waitpid(id, nullptr, 0);
    }
    pid_t id;
};

void getdentsOtherTaskFolder(benchmark::State& state) {
    const OtherProcess process(state.range(0));
    const std::string folder = "/proc/" + std::to_string(process.id) + "/task";
    for (auto _ : state) {
        walkTaskFolder(folder.c_str());
    }
}
BENCHMARK(getdentsOtherTaskFolder)->Arg(1)->Arg(100);

void otherThreadList(benchmark::State& state) {
    const OtherProcess process(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(ThreadIds::getThreadIds(static_cast<unsigned int>(process.id)));
    }
}
BENCHMARK(otherThreadList)->Arg(1)->Arg(100);

void gettidCall(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(gettid());
    }
}
BENCHMARK(gettidCall);

void ownThreadId(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(ThreadIds::getThreadId());
    }
}
BENCHMARK(ownThreadId);

void prctlSetName(benchmark::State& state) {
    for (auto _ : state) {
        prctl(PR_SET_NAME, "a thread's name");
    }
}
BENCHMARK(prctlSetName);

void setOwnName(benchmark::State& state) {
    const std::string name =
        state.range(0) == 0 ? "a thread's name" : "Worker.cpp:57:app::Worker::run(app::Job const&)";
    for (auto _ : state) {
        ThreadUtilities::setThreadName(name);
    }
    ThreadUtilities::setThreadName("");
}
BENCHMARK(setOwnName)->ArgName("long")->Arg(0)->Arg(1);

void prctlGetName(benchmark::State& state) {
    std::array<char, 16> name;
    for (auto _ : state) {
        prctl(PR_GET_NAME, name.data());
        benchmark::DoNotOptimize(name);
    }
}
BENCHMARK(prctlGetName);

void ownName(benchmark::State& state) {
    ThreadUtilities::setThreadName("Worker.cpp:57:app::Worker::run(app::Job const&)");
    for (auto _ : state) {
        benchmark::DoNotOptimize(ThreadUtilities::getThreadName());
    }
    ThreadUtilities::setThreadName("");
}
BENCHMARK(ownName);

void readCommOfAnotherThread(benchmark::State& state) {
    const Crowd crowd(2);
    const std::string path =
        "/proc/self/task/" + std::to_string(ThreadIds::getThreadIds().back()) + "/comm";
    for (auto _ : state) {
        std::array<char, 32> name;
        const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        benchmark::DoNotOptimize(read(file, name.data(), name.size()));
        close(file);
    }
}
BENCHMARK(readCommOfAnotherThread);

void nameOfAnotherThread(benchmark::State& state) {
    const Crowd crowd(2);
    const unsigned int other = ThreadIds::getThreadIds().back();
    for (auto _ : state) {
        benchmark::DoNotOptimize(ThreadUtilities::getThreadName(other));
    }
}
BENCHMARK(nameOfAnotherThread);

using CreateFunction = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

void startAndJoin(benchmark::State& state, CreateFunction create) {
    for (auto _ : state) {
        pthread_t thread;
        create(&thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
        pthread_join(thread, nullptr);
    }
}

void startAndJoinByCLibrary(benchmark::State& state) {
    void* const library = dlopen("libc.so.6", RTLD_NOW | RTLD_NOLOAD);
    startAndJoin(state, reinterpret_cast<CreateFunction>(dlsym(library, "pthread_create")));
}
BENCHMARK(startAndJoinByCLibrary)->UseRealTime();

void startAndJoinHeardOf(benchmark::State& state) {
    startAndJoin(state, &pthread_create);
}
BENCHMARK(startAndJoinHeardOf)->UseRealTime();

}  // namespace
