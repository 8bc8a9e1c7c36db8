// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// capture_storm [SECONDS [NAME]]: goes through all storms, or one, in this time. Ends with status
// 0 when no capture was lost and nothing was left behind. A report from amidst each storm goes into
// the file that STORM_REPORTS names.

#include <ThreadUtilities/StackTrace.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "storm/storm.h"

namespace {

using storm::Outcome;
using storm::Storm;
using storm::Target;

std::atomic<unsigned int> damages{0};

void damage(const char* what) {
    if (++damages < 10) {
        std::fprintf(stderr, "storm: %s\n", what);
    }
}

void compute(Target& target) {
    while (target.mustGoOn()) {
        errno = 4711;
        double sums[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        for (int i = 0; i < 500; ++i) {
            for (double& sum : sums) {
                sum += 1.0;
            }
            asm volatile("" : : "m"(sums));
        }
        double total = 0;
        for (const double sum : sums) {
            total += sum;
        }
        if (total != 4036.0 || errno != 4711) {
            damage("errno or vector registers changed");
        }
    }
}

void allocate(Target& target) {
    unsigned int seed = 1;
    while (target.mustGoOn()) {
        void* blocks[16];
        for (void*& block : blocks) {
            seed = seed * 1664525U + 1013904223U;
            block = std::malloc(seed >> 18);
        }
        for (void* block : blocks) {
            std::free(block);
        }
    }
}

[[gnu::noinline]] void throwFrom(int depth) {
    const std::unique_ptr<int> owned = std::make_unique<int>(depth);
    if (depth == 0) {
        throw std::runtime_error("storm");
    }
    throwFrom(*owned - 1);
}

void throwAndCatch(Target& target) {
    for (int depth = 0; target.mustGoOn(); depth = (depth + 1) % 20) {
        try {
            throwFrom(depth);
        } catch (const std::runtime_error&) {
            continue;
        }
    }
}

void loadAndUnload(Target& target) {
    const char* const plugins[] = {STORM_PLUGINS};
    for (std::size_t turn = 0; target.mustGoOn(); ++turn) {
        void* const library = dlopen(plugins[turn % std::size(plugins)], RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            damage(dlerror());
            return;
        }
        const auto work =
            reinterpret_cast<unsigned int (*)(unsigned int)>(dlsym(library, "stormWork"));
        for (int i = 0; i < 20; ++i) {
            work(static_cast<unsigned int>(turn % 30));
        }
        dlclose(library);
    }
}

void sleepShortly(Target& target) {
    while (target.mustGoOn()) {
        if (poll(nullptr, 0, 1) != 0 && errno != EINTR) {
            damage("poll failed");
        }
    }
}

void startThreads(Target& target) {
    while (target.mustGoOn()) {
        std::thread([] {}).join();
    }
}

// The ids of threads that are about to end, instead of the body's own.
void showThreadsThatEnd(Target& target) {
    const unsigned int own = target.threadId;
    while (target.mustGoOn()) {
        std::thread([&] { target.threadId = static_cast<unsigned int>(gettid()); }).join();
    }
    target.threadId = own;
}

void forkChildren(Target& target) {
    while (target.mustGoOn()) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(0);
        }
        int status = -1;
        if (waitpid(child, &status, 0) != child || status != 0) {
            damage("a child ended badly");
        }
    }
}

void executePrograms(Target& target) {
    char name[] = "/bin/true";
    char* const arguments[] = {name, nullptr};
    while (target.mustGoOn()) {
        pid_t child = -1;
        int status = -1;
        if (posix_spawn(&child, name, nullptr, nullptr, arguments, nullptr) != 0 ||
            waitpid(child, &status, 0) != child || status != 0) {
            damage("a program ended badly");
        }
    }
}

thread_local sigjmp_buf jumpBack;

[[gnu::noinline]] void jump(int depth) {
    volatile char ballast[100];
    ballast[0] = static_cast<char>(depth);
    if (depth == 0) {
        siglongjmp(jumpBack, 1);
    }
    jump(ballast[0] - 1);
}

void longJump(Target& target) {
    while (target.mustGoOn()) {
        if (sigsetjmp(jumpBack, 1) == 0) {
            jump(5);
        }
    }
}

void changeMask(Target& target) {
    sigset_t everything;
    sigset_t before;
    sigfillset(&everything);
    while (target.mustGoOn()) {
        pthread_sigmask(SIG_SETMASK, &everything, &before);
        // Long enough that captures are given up and their signals arrive late.
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(8);
        while (std::chrono::steady_clock::now() < end) {
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        for (volatile int i = 0; i < 100'000;) {
            i = i + 1;
        }
    }
}

// As no mask of the C library's can: also the signal of captures.
void blockByTheRawCall(Target& target) {
    while (target.mustGoOn()) {
        const std::uint64_t everything = ~std::uint64_t{0};
        std::uint64_t before = 0;
        syscall(SYS_rt_sigprocmask, SIG_SETMASK, &everything, &before, sizeof(before));
        for (volatile int i = 0; i < 1'000'000;) {
            i = i + 1;
        }
        poll(nullptr, 0, 1);
        syscall(SYS_rt_sigprocmask, SIG_SETMASK, &before, nullptr, sizeof(before));
        for (volatile int i = 0; i < 100'000;) {
            i = i + 1;
        }
    }
}

// The C library sends its own signal of the same number to all threads.
void changeIds(Target& target) {
    while (target.mustGoOn()) {
        if (setresgid(static_cast<gid_t>(-1), getegid(), static_cast<gid_t>(-1)) != 0) {
            damage("setresgid failed");
        }
    }
}

void cancelThreads(Target& target) {
    while (target.mustGoOn()) {
        pthread_t thread{};
        void* result = nullptr;
        const auto work = [](void*) -> void* {
            for (;;) {
                poll(nullptr, 0, 1000);
            }
        };
        if (pthread_create(&thread, nullptr, work, nullptr) != 0 || pthread_cancel(thread) != 0 ||
            pthread_join(thread, &result) != 0 || result != PTHREAD_CANCELED) {
            damage("a thread was not cancelled");
        }
    }
}

void useTimers(Target& target) {
    static std::atomic<unsigned int> expired{0};
    while (target.mustGoOn()) {
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD;
        event.sigev_notify_function = [](sigval) { ++expired; };
        timer_t timer{};
        if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0) {
            damage("no timer");
            return;
        }
        const unsigned int before = expired;
        const itimerspec soon{{}, {0, 100'000}};
        timer_settime(timer, 0, &soon, nullptr);
        while (expired == before && target.mustGoOn()) {
            sched_yield();
        }
        timer_delete(timer);
    }
}

void takeAllSignals(Target& target) {
    sigset_t everything;
    sigset_t before;
    sigfillset(&everything);
    pthread_sigmask(SIG_SETMASK, &everything, &before);
    const int descriptor = signalfd(-1, &everything, SFD_NONBLOCK | SFD_CLOEXEC);
    while (target.mustGoOn()) {
        const timespec shortly{0, 100'000};
        signalfd_siginfo info;
        if (sigtimedwait(&everything, nullptr, &shortly) > 0 ||
            read(descriptor, &info, sizeof(info)) > 0) {
            damage("a host received a signal that it was not sent");
        }
    }
    close(descriptor);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// Children that capture themselves and become another program meanwhile.
void executeUnderCapture(Target& target) {
    while (target.mustGoOn()) {
        const pid_t child = fork();
        if (child == 0) {
            const auto self = static_cast<unsigned int>(gettid());
            std::thread([self] {
                for (;;) {
                    unsigned long long frames[64];
                    ThreadUtilities::getStackTrace(self, frames, 64, true);
                }
            }).detach();
            for (volatile int i = 0; i < 300'000;) {
                i = i + 1;
            }
            execl("/bin/true", "true", nullptr);
            _exit(1);
        }
        int status = -1;
        if (waitpid(child, &status, 0) != child || status != 0) {
            damage("a child ended badly");
        }
    }
}

// Jumps out of the handler of a fault that another thread sends, and so out of answers as well.
void jumpOnFaults(Target& target) {
    static thread_local sigjmp_buf jump;
    struct sigaction action{};
    action.sa_handler = [](int) { siglongjmp(jump, 1); };
    sigaction(SIGFPE, &action, nullptr);
    std::atomic<bool> mayJump{false};
    std::atomic<bool> stop{false};
    std::thread sender([&, thread = pthread_self()] {
        while (!stop) {
            if (mayJump) {
                pthread_kill(thread, SIGFPE);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    sigsetjmp(jump, 1);
    mayJump = true;
    while (target.mustGoOn()) {
    }
    sigset_t fault;
    sigemptyset(&fault);
    sigaddset(&fault, SIGFPE);
    pthread_sigmask(SIG_BLOCK, &fault, nullptr);
    stop = true;
    sender.join();
    // What is pending ends nothing any more.
    signal(SIGFPE, SIG_IGN);
    pthread_sigmask(SIG_UNBLOCK, &fault, nullptr);
}

void stayOnAlternateStack(Target& target) {
    static thread_local Target* handled = nullptr;
    handled = &target;
    const std::unique_ptr<char[]> memory(new char[64 << 10]);
    stack_t stack{memory.get(), 0, 64 << 10};
    sigaltstack(&stack, nullptr);
    struct sigaction action{};
    action.sa_flags = SA_ONSTACK;
    action.sa_handler = [](int) {
        for (int i = 0; i < 1000 && handled->mustGoOn(); ++i) {
            sched_yield();
        }
    };
    sigaction(SIGUSR2, &action, nullptr);
    while (target.mustGoOn()) {
        raise(SIGUSR2);
    }
    stack.ss_flags = SS_DISABLE;
    sigaltstack(&stack, nullptr);
}

struct Coroutine {
    ucontext_t caller;
    ucontext_t own;
    std::unique_ptr<char[]> memory{new char[32 << 10]};
};

thread_local Coroutine* running = nullptr;

[[gnu::noinline]] void yieldFrom(int depth) {
    if (depth > 0) {
        yieldFrom(depth - 1);
    } else {
        swapcontext(&running->own, &running->caller);
    }
    asm volatile("");
}

void switchCoroutines(Target& target) {
    Coroutine coroutine;
    getcontext(&coroutine.own);
    coroutine.own.uc_stack.ss_sp = coroutine.memory.get();
    coroutine.own.uc_stack.ss_size = 32 << 10;
    coroutine.own.uc_link = nullptr;
    running = &coroutine;
    makecontext(
        &coroutine.own,
        [] {
            for (int depth = 0;; depth = (depth + 1) % 10) {
                yieldFrom(depth);
            }
        },
        0);
    while (target.mustGoOn()) {
        swapcontext(&coroutine.caller, &coroutine.own);
    }
}

// Without a stack to speak of; an alternate one lets the kernel call handlers nevertheless.
void pointNowhere(Target& target) {
    const std::unique_ptr<char[]> memory(new char[64 << 10]);
    stack_t stack{memory.get(), 0, 64 << 10};
    sigaltstack(&stack, nullptr);
    // Mapped memory to point into, apart from the alternate stack: on that the kernel would go on
    // where the stack pointer stands, and call the handler on whatever lies below.
    const std::unique_ptr<char[]> elsewhere(new char[64 << 10]);
    std::uint64_t garbage = 0;
    while (target.mustGoOn()) {
        garbage = garbage * 6364136223846793005ULL + 1442695040888963407ULL;
        const std::uint64_t values[] = {
            garbage,
            garbage >> 17,
            0,
            8,
            reinterpret_cast<std::uint64_t>(elsewhere.get()) + garbage % 60000,
            reinterpret_cast<std::uint64_t>(&pointNowhere)};
        const std::uint64_t value = values[(garbage >> 33) % std::size(values)];
        asm volatile(
            "movq %%rsp, %%r12\n\t"
            "movq %%rbp, %%r13\n\t"
            "movq %0, %%rsp\n\t"
            "movq %0, %%rbp\n\t"
            "movl $5000, %%ecx\n"
            "1:\n\t"
            "pause\n\t"
            "decl %%ecx\n\t"
            "jnz 1b\n\t"
            "movq %%r13, %%rbp\n\t"
            "movq %%r12, %%rsp"
            :
            : "a"(value)
            : "rcx", "r12", "r13", "memory", "cc");
    }
    stack.ss_flags = SS_DISABLE;
    sigaltstack(&stack, nullptr);
}

const Storm storms[] = {
    {"computing, errno and vector registers", {compute, compute}},
    {"malloc and free", {allocate, allocate, allocate}},
    {"throw and catch", {throwAndCatch, throwAndCatch}, false},
    {"dlopen and dlclose", {loadAndUnload, loadAndUnload, throwAndCatch, compute}, false},
    {"short sleeps", {sleepShortly, sleepShortly, compute}},
    {"threads that come and go", {startThreads, startThreads, compute}},
    {"threads that end under capture", {showThreadsThatEnd, showThreadsThatEnd}, false},
    {"fork and exec", {forkChildren, executePrograms, compute}},
    {"longjmp", {longJump, compute}, false},
    {"masks and late signals", {changeMask, changeMask, compute}, false},
    {"signals blocked by the raw call", {blockByTheRawCall, compute}, false},
    {"changes of the process's ids", {changeIds, changeIds, compute, sleepShortly}},
    {"cancellation", {cancelThreads, cancelThreads, compute}},
    {"timers that start threads", {useTimers, compute}},
    {"hosts that take all signals", {takeAllSignals, takeAllSignals, compute}},
    {"exec under capture", {executeUnderCapture, compute}, false},
    {"jumps out of answers", {jumpOnFaults, compute}, false},
    {"alternate stacks", {stayOnAlternateStack, stayOnAlternateStack}},
    {"coroutines", {switchCoroutines, switchCoroutines}, false},
    {"garbage stack pointers", {pointNowhere, pointNowhere, compute}, false},
};

std::size_t openDescriptors() {
    std::size_t count = 0;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        count += fcntl(descriptor, F_GETFD) >= 0 ? 1 : 0;
    }
    return count;
}

bool runOne(const Storm& storm, std::chrono::milliseconds duration, unsigned long long& total,
            std::string& reports) {
    const Outcome outcome = storm::run(storm, duration, reports);
    total += outcome.captures;
    const bool lost = storm.isWhole && outcome.empty + outcome.incomplete != 0;
    const bool well = !lost && outcome.overruns == 0 && outcome.captures != 0;
    std::printf("%-40s %9llu captures %6llu empty %6llu given up %6llu incomplete%s\n",
                storm.name.c_str(), outcome.captures, outcome.empty, outcome.givenUp,
                outcome.incomplete, well ? "" : "  FAILED");
    std::fflush(stdout);
    return well;
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 10;
    const char* const only = argc > 2 ? argv[2] : nullptr;
    std::size_t chosen = 0;
    for (const Storm& storm : storms) {
        chosen += only == nullptr || storm.name == only ? 1 : 0;
    }
    if (chosen == 0 || seconds <= 0) {
        std::fprintf(stderr, "usage: capture_storm [SECONDS [NAME]]; the names are:\n");
        for (const Storm& storm : storms) {
            std::fprintf(stderr, "    %s\n", storm.name.c_str());
        }
        return 2;
    }
    const std::jthread watchdog = storm::watchProgress();
    const std::chrono::milliseconds each(
        static_cast<long>(seconds * 1000 / static_cast<double>(chosen)));
    unsigned long long total = 0;
    bool well = true;
    std::string reports;
    std::size_t descriptors = 0;
    std::size_t heap = 0;
    for (const Storm& storm : storms) {
        if (only != nullptr && storm.name != only) {
            continue;
        }
        well = runOne(storm, each, total, reports) && well;
        if (descriptors == 0) {
            descriptors = openDescriptors();
            heap = mallinfo2().uordblks;
        }
    }
    constexpr std::size_t heapSlack = 1 << 20;
    if (openDescriptors() != descriptors || mallinfo2().uordblks > heap + heapSlack) {
        damage("descriptors or memory left behind");
    }
    if (const char* const file = std::getenv("STORM_REPORTS")) {
        std::ofstream(file) << reports;
    }
    std::printf("%llu captures, %u damages\n", total, damages.load());
    return well && damages == 0 ? 0 : 1;
}
