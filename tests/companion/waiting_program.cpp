// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Threads that wait for all kinds of things, for as long as the program's input is open. It prints
// what is to be said of them: "NAME<tab>WORDS" of a thread, "<tab>WORDS" of a knot, and "ready".
//
//   waiting_program waits | spin | contend | traced

#include <linux/futex.h>
#include <netinet/in.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <poll.h>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <latch>
#include <mutex>
#include <new>
#include <string>
#include <thread>

namespace {

void expect(const std::string& name, const std::string& words) {
    std::printf("%s\t%s\n", name.c_str(), words.c_str());
}

std::string at(const void* address) {
    std::array<char, 32> text = {};
    std::snprintf(text.data(), text.size(), " at %p", address);
    return text.data();
}

/// Never ends. Returns when it runs.
pthread_t start(const std::string& name, std::function<void()> body) {
    std::latch runs(1);
    std::thread thread([&runs, name, body = std::move(body)] {
        pthread_setname_np(pthread_self(), name.c_str());
        runs.count_down();
        body();
    });
    const pthread_t handle = thread.native_handle();
    runs.wait();
    thread.detach();
    return handle;
}

[[noreturn]] void rest() {
    for (;;) {
        pause();
    }
}

/// Not std::shared_mutex, which some standard libraries make of other locks.
struct ReadWriteLock {
    void lock() { pthread_rwlock_wrlock(&handle); }
    void lock_shared() { pthread_rwlock_rdlock(&handle); }
    pthread_rwlock_t handle = PTHREAD_RWLOCK_INITIALIZER;
};

/// Locks that live as long as the program.
template <typename Lock, typename... Arguments>
Lock& make(Arguments... arguments) {
    return *new Lock(arguments...);
}

pthread_mutex_t& makeMutex(int protocol, int robustness, int sharing = PTHREAD_PROCESS_PRIVATE) {
    void* const place = mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE,
                             MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto& mutex = *static_cast<pthread_mutex_t*>(place);
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setprotocol(&attributes, protocol);
    pthread_mutexattr_setrobust(&attributes, robustness);
    pthread_mutexattr_setpshared(&attributes, sharing);
    pthread_mutex_init(&mutex, &attributes);
    return mutex;
}

template <typename Lock>
void hold(const std::string& name, Lock& lock) {
    auto& held = make<std::latch>(1);
    start(name, [&] {
        lock.lock();
        held.count_down();
        rest();
    });
    held.wait();
}

void oppositeOrder() {
    auto& first = make<std::mutex>();
    auto& second = make<std::mutex>();
    auto& both = make<std::latch>(2);
    const auto lockBoth = [&both](std::mutex& one, std::mutex& other) {
        one.lock();
        both.arrive_and_wait();
        other.lock();
    };
    start("parse 1", [&, lockBoth] { lockBoth(first, second); });
    start("parse 2", [&, lockBoth] { lockBoth(second, first); });
    expect("parse 1", "waits for the mutex" + at(&second) + ", which parse 2 holds");
    expect("parse 2", "waits for the mutex" + at(&first) + ", which parse 1 holds");
    expect("", "deadlock: parse 1 waits for parse 2 waits for parse 1");
}

void threeKindsInACircle() {
    auto& recursive = make<std::recursive_mutex>();
    auto& inheriting = makeMutex(PTHREAD_PRIO_INHERIT, PTHREAD_MUTEX_STALLED);
    auto& shared = make<ReadWriteLock>();
    auto& all = make<std::latch>(3);
    start("stage 1", [&] {
        recursive.lock();
        all.arrive_and_wait();
        pthread_mutex_lock(&inheriting);
    });
    start("stage 2", [&] {
        pthread_mutex_lock(&inheriting);
        all.arrive_and_wait();
        shared.lock_shared();
    });
    start("stage 3", [&] {
        shared.lock();
        all.arrive_and_wait();
        recursive.lock();
    });
    expect("stage 1",
           "waits for the priority-inheriting mutex" + at(&inheriting) + ", which stage 2 holds");
    expect("stage 2",
           "waits for the read-write lock" + at(&shared) + " to read, which stage 3 holds");
    expect("stage 3", "waits for the mutex" + at(&recursive) + ", which stage 1 holds");
    expect("", "deadlock: stage 1 waits for stage 2 waits for stage 3 waits for stage 1");
}

void joinUnderLock() {
    auto& mutex = make<std::mutex>();
    auto& locked = make<std::latch>(1);
    start("boss", [&] {
        const std::lock_guard lock(mutex);
        std::thread clerk([&] {
            pthread_setname_np(pthread_self(), "clerk");
            locked.count_down();
            mutex.lock();
        });
        clerk.join();
    });
    locked.wait();
    expect("boss", "waits for the end of clerk");
    expect("clerk", "waits for the mutex" + at(&mutex) + ", which boss holds");
    expect("", "deadlock: boss waits for clerk waits for boss");
}

void twiceTheSame() {
    auto& mutex = make<std::mutex>();
    start("again", [&] {
        mutex.lock();
        mutex.lock();
    });
    expect("again", "waits for the mutex" + at(&mutex) + ", which again holds");
    expect("", "deadlock: again waits for itself");
}

void readersAndWriters() {
    auto& written = make<ReadWriteLock>();
    auto& read = make<ReadWriteLock>();
    hold("writer", written);
    expect("writer", "waits for a signal");
    auto& held = make<std::latch>(1);
    start("reader", [&] {
        read.lock_shared();
        held.count_down();
        written.lock_shared();
    });
    held.wait();
    start("late writer", [&] { read.lock(); });
    expect("reader",
           "waits for the read-write lock" + at(&written) + " to read, which writer holds");
    expect("late writer",
           "waits for the read-write lock" + at(&read) + " to write, which 1 reader holds");
}

/// Ends its thread with the mutex locked. Returns that thread's id.
unsigned int abandon(pthread_mutex_t& mutex) {
    unsigned int id = 0;
    std::thread([&] {
        pthread_mutex_lock(&mutex);
        id = static_cast<unsigned int>(gettid());
    }).join();
    return id;
}

void holdersThatEnded() {
    auto& plain = makeMutex(PTHREAD_PRIO_NONE, PTHREAD_MUTEX_STALLED);
    auto& robust = makeMutex(PTHREAD_PRIO_NONE, PTHREAD_MUTEX_ROBUST);
    const std::string words = "waits for the mutex" + at(&plain) + ", whose holder, thread " +
                              std::to_string(abandon(plain)) + ", has ended";
    start("orphan", [&] { pthread_mutex_lock(&plain); });
    expect("orphan", words);
    expect("", "abandoned: orphan " + words);
    // The next one gets it, and does not make it consistent: it is no longer the dead thread's.
    abandon(robust);
    auto& held = make<std::latch>(1);
    start("heir", [&] {
        pthread_mutex_lock(&robust);
        held.count_down();
        rest();
    });
    held.wait();
    start("next", [&] { pthread_mutex_lock(&robust); });
    expect("next", "waits for the robust mutex" + at(&robust) + ", which heir holds");
}

void holderElsewhere() {
    auto& mutex = makeMutex(PTHREAD_PRIO_NONE, PTHREAD_MUTEX_STALLED, PTHREAD_PROCESS_SHARED);
    std::array<int, 2> locked = {};
    if (pipe(locked.data()) != 0) {
        std::abort();
    }
    const pid_t child = fork();
    if (child == 0) {
        // Lives as long as its parent.
        close(locked[0]);
        pthread_mutex_lock(&mutex);
        [[maybe_unused]] const auto told = write(locked[1], "", 1);
        char byte = 0;
        while (read(STDIN_FILENO, &byte, 1) > 0) {
        }
        _exit(0);
    }
    char byte = 0;
    [[maybe_unused]] const auto heard = read(locked[0], &byte, 1);
    start("neighbour", [&] { pthread_mutex_lock(&mutex); });
    expect("neighbour", "waits for the mutex" + at(&mutex) + ", which waiting_program (thread " +
                            std::to_string(child) + " of another process) holds");
}

void signalsThatNeverCome() {
    auto& mutex = make<std::mutex>();
    auto& condition = make<std::condition_variable>();
    start("listener", [&] {
        std::unique_lock lock(mutex);
        condition.wait(lock, [] { return false; });
    });
    expect("listener", "waits for the condition variable" + at(&condition));
    auto& timed = make<std::condition_variable>();
    start("patient", [&] {
        std::unique_lock lock(mutex);
        const auto end =
            std::chrono::steady_clock::now() + std::chrono::minutes(100 * 24 * 60 + 30);
        timed.wait_until(lock, end, [] { return false; });
    });
    expect("patient", "waits for the condition variable" + at(&timed) + ", for 100 days 0 h more");
    auto& semaphore = make<sem_t>();
    sem_init(&semaphore, 0, 0);
    start("guest", [&] { sem_wait(&semaphore); });
    expect("guest", "waits for the semaphore" + at(&semaphore));
    // Behind the word stands what would make it a robust mutex, whose holder has ended.
    constexpr unsigned int word = 0xBFFFFFFF;
    auto& value = *new (std::align_val_t{8}) std::array<unsigned int, 16>{word, 0, 0, 1, 16};
    start("atomic",
          [&] { syscall(SYS_futex, &value, FUTEX_WAIT_PRIVATE, word, nullptr, nullptr, 0); });
    expect("atomic",
           "waits for the value" + at(&value) + " to change from " + std::to_string(word));
}

void streams() {
    std::FILE* const stream = std::fopen("/dev/null", "w");
    auto& held = make<std::latch>(1);
    start("printer", [=, &held] {
        flockfile(stream);
        held.count_down();
        rest();
    });
    held.wait();
    start("printer 2", [=] { std::fputs("", stream), flockfile(stream); });
    expect("printer 2", "waits for a lock of the C library, in *, at *, which printer holds");
}

std::string inodeOf(int descriptor) {
    struct stat status = {};
    fstat(descriptor, &status);
    return std::to_string(status.st_ino);
}

std::string descriptorText(int descriptor, const std::string& purpose = "") {
    return " (descriptor " + std::to_string(descriptor) + purpose + ')';
}

void files() {
    static std::array<int, 2> ends;
    if (pipe(ends.data()) != 0) {
        std::abort();
    }
    const std::string pipeText = "pipe " + inodeOf(ends[0]);
    start("poller", [] {
        pollfd descriptor = {ends[0], POLLIN, 0};
        poll(&descriptor, 1, 7'200'000);
    });
    expect("poller", "waits (poll) for " + pipeText + descriptorText(ends[0], ", to read") +
                         ", for at most 2 h 0 min");
    start("line reader", [] {
        char byte = 0;
        [[maybe_unused]] const auto got = read(ends[0], &byte, 1);
    });
    expect("line reader", "reads from " + pipeText + descriptorText(ends[0]));
    static const int event = eventfd(0, 0);
    static const int epoll = epoll_create1(0);
    epoll_event wanted = {.events = EPOLLIN, .data = {}};
    epoll_ctl(epoll, EPOLL_CTL_ADD, event, &wanted);
    start("loop", [] {
        epoll_event got = {};
        epoll_wait(epoll, &got, 1, -1);
    });
    expect("loop", "waits (epoll, descriptor " + std::to_string(epoll) + ") for eventfd" +
                       descriptorText(event, ", to read"));
    start("selector", [] {
        fd_set toRead;
        FD_ZERO(&toRead);
        FD_SET(event, &toRead);
        select(event + 1, &toRead, nullptr, nullptr, nullptr);
    });
    expect("selector", "waits (select) for eventfd" + descriptorText(event, ", to read"));
}

std::string addressOf(int socket) {
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    return "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}

void sockets() {
    static const int listener = socket(AF_INET, SOCK_STREAM, 0);
    static const int client = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listener, 1) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        connect(client, reinterpret_cast<sockaddr*>(&address), length) != 0) {
        std::abort();
    }
    accept(listener, nullptr, nullptr);
    start("accepter", [] { accept(listener, nullptr, nullptr); });
    expect("accepter", "accepts connections at TCP " + addressOf(listener) + " (listening)" +
                           descriptorText(listener));
    start("receiver", [] {
        char byte = 0;
        recv(client, &byte, 1, 0);
    });
    expect("receiver", "receives from TCP " + addressOf(client) + " with " + addressOf(listener) +
                           descriptorText(client));
}

void sleeps() {
    start("dozer", [] { sleep(7200); });
    expect("dozer", "sleeps, of 2 h 0 min");
    start("sleeper", [] {
        timespec end = {};
        clock_gettime(CLOCK_MONOTONIC, &end);
        end.tv_sec += 100 * 24 * 3600 + 1800;
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr);
    });
    expect("sleeper", "sleeps, for 100 days 0 h more");
}

void waits() {
    // First, so that the child has no threads whose locks it inherits.
    holderElsewhere();
    oppositeOrder();
    threeKindsInACircle();
    joinUnderLock();
    twiceTheSame();
    readersAndWriters();
    holdersThatEnded();
    signalsThatNeverCome();
    streams();
    files();
    sockets();
    sleeps();
}

void spin() {
    for (int number = 1; number <= 2; ++number) {
        start("spinner " + std::to_string(number), [] {
            for (std::atomic<bool> stop = false; !stop;) {
            }
        });
    }
    start("idler", rest);
}

/// Locks that are always taken in one order, held for long and short, by threads that come and go.
void contend() {
    constexpr int threads = 6;
    auto& outer = make<std::mutex>();
    auto& inner = makeMutex(PTHREAD_PRIO_NONE, PTHREAD_MUTEX_ROBUST);
    auto& shared = make<ReadWriteLock>();
    const auto work = [&] {
        for (int round = 0; round < 20; ++round) {
            const std::lock_guard lock(outer);
            pthread_mutex_lock(&inner);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            shared.lock();
            pthread_rwlock_unlock(&shared.handle);
            pthread_mutex_unlock(&inner);
        }
    };
    for (int number = 1; number <= threads; ++number) {
        start("busy " + std::to_string(number), [work] {
            for (;;) {
                std::thread(work).join();
            }
        });
    }
}

/// The child is the one that is traced.
pid_t traced() {
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        _exit(0);
    }
    waitpid(child, nullptr, WUNTRACED);
    return child;
}

}  // namespace

int main(int argumentCount, char** arguments) {
    const std::string mode = argumentCount > 1 ? arguments[1] : "";
    pid_t process = getpid();
    if (mode == "waits") {
        waits();
    } else if (mode == "spin") {
        spin();
    } else if (mode == "contend") {
        contend();
    } else if (mode == "traced") {
        process = traced();
    }
    std::printf("ready %d\n", process);
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    if (process != getpid()) {
        kill(process, SIGKILL);
    }
    std::_Exit(0);
}
