// A program that finds the library the way its arguments say, and then compares what the library
// says of the program's threads with what the program knows. Ends with 0 when all is right.
//
//   loading_probe present              the library is there from the start, however it came
//   loading_probe dlopen <library>     the library is loaded when threads run already
//   loading_probe exiting              the program ends while threads use the library
//
// The library is only reached by look-up, so that the same program serves all ways of loading.

#include <dirent.h>
#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "parked_thread.h"

namespace {

using ThreadUtilities::ParkedThread;
using Ids = std::vector<unsigned int>;

struct Library {
    Ids (*threadIds)();
    unsigned int (*mainThreadId)();
    void (*setName)(const std::string&);
    std::string (*name)(unsigned int);
};

Library findLibrary(void* handle) {
    const auto find = [handle]<class F>(F& function, const char* symbol) {
        function = reinterpret_cast<F>(dlsym(handle, symbol));
        if (function == nullptr) {
            std::fprintf(stderr, "no %s\n", symbol);
            _exit(2);
        }
    };
    Library library;
    find(library.threadIds, "_ZN9ThreadIds12getThreadIdsEv");
    find(library.mainThreadId, "_ZN9ThreadIds15getMainThreadIdEv");
    find(library.setName,
         "_ZN15ThreadUtilities13setThreadNameERKNSt7__cxx1112basic_stringIcSt11char_"
         "traitsIcESaIcEEE");
    find(library.name, "_ZN15ThreadUtilities13getThreadNameB5cxx11Ej");
    return library;
}

unsigned int ownId() {
    return static_cast<unsigned int>(gettid());
}

// A sanitizer starts a thread of its own beside the first one; that is none of the program's.
Ids backgroundThreads;

void findBackgroundThreads() {
    ParkedThread().end();
    Ids& ids = backgroundThreads;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/task"), closedir);
    while (const dirent* const entry = readdir(folder.get())) {
        if (const int id = atoi(entry->d_name); id > 0) {
            ids.push_back(static_cast<unsigned int>(id));
        }
    }
    std::erase(ids, ownId());
}

void expect(bool right, const char* what) {
    if (!right) {
        std::fprintf(stderr, "wrong: %s\n", what);
        _exit(1);
    }
}

void expectList(const Library& library, const Ids& expected, const char* what) {
    Ids ids = library.threadIds();
    std::erase_if(ids, [](unsigned int id) {
        return std::count(backgroundThreads.begin(), backgroundThreads.end(), id) != 0;
    });
    if (ids != expected) {
        std::fprintf(stderr, "%d threads, not %d\n", static_cast<int>(ids.size()),
                     static_cast<int>(expected.size()));
    }
    expect(ids == expected, what);
}

void checkStartsAndEnds(const Library& library, Ids expected) {
    expectList(library, expected, "before the first start");
    for (int round = 0; round < 200; ++round) {
        ParkedThread first;
        ParkedThread second([&] { library.setName("the second of the threads"); });
        Ids during = expected;
        during.insert(during.end(), {first.id(), second.id()});
        expectList(library, during, "two more threads");
        expect(library.name(first.id()).empty(), "no name");
        expect(library.name(second.id()) == "the second of the threads", "a name");
        first.end();
        during.erase(during.end() - 2);
        expectList(library, during, "one of them ended");
    }
    expectList(library, expected, "all ended");
}

// The C library serves a timer from threads that it makes behind everybody's back.
std::atomic<bool> timerThreadListed{false};
std::atomic<unsigned int> timerThread{0};
sem_t timerRan;
Ids (*listForTimer)();

void checkTimerThread(const Library& library) {
    sem_init(&timerRan, 0, 0);
    listForTimer = library.threadIds;
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_notify_function = [](sigval) {
        const Ids ids = listForTimer();
        timerThread = ownId();
        timerThreadListed = std::count(ids.begin(), ids.end(), ownId()) == 1;
        sem_post(&timerRan);
    };
    timer_t timer;
    expect(timer_create(CLOCK_MONOTONIC, &event, &timer) == 0, "a timer");
    const itimerspec soon{{}, {0, 1000000}};
    timer_settime(timer, 0, &soon, nullptr);
    while (sem_wait(&timerRan) != 0) {
    }
    expect(timerThreadListed, "a timer's thread");
    timer_delete(timer);
    for (Ids ids{timerThread}; std::count(ids.begin(), ids.end(), timerThread.load()) != 0;) {
        ids = library.threadIds();
    }
}

// The first thread may end before the others; the rest of the check runs on a second one.
void checkEndOfFirstThread(const Library& library) {
    static Library used;
    static pthread_t firstThread;
    used = library;
    firstThread = pthread_self();
    pthread_t other;
    pthread_create(
        &other, nullptr,
        [](void*) -> void* {
            pthread_join(firstThread, nullptr);
            const Ids ids = used.threadIds();
            const auto first = static_cast<unsigned int>(getpid());
            expect(std::count(ids.begin(), ids.end(), ownId()) == 1, "the last thread");
            expect(std::count(ids.begin(), ids.end(), first) == 0, "the first thread ended");
            _exit(0);
        },
        nullptr);
    pthread_exit(nullptr);
}

// Ends the program. ThreadSanitizer has no state for the threads of timers, nor for a first thread
// that is joined.
void checkUncommon(const Library& library) {
#if !defined(__SANITIZE_THREAD__)
    checkTimerThread(library);
    checkEndOfFirstThread(library);
#else
    expectList(library, {ownId()}, "the first thread alone");
    (void)checkTimerThread;
    (void)checkEndOfFirstThread;
    _exit(0);
#endif
}

int runPresent() {
    const Library library = findLibrary(RTLD_DEFAULT);
    expect(library.mainThreadId() == ownId(), "main thread");
    checkStartsAndEnds(library, {ownId()});
    checkUncommon(library);
    return 3;
}

int runLoaded(const char* file) {
    ParkedThread endsLate;
    ParkedThread endsAtOnce;
    Ids before{ownId(), endsLate.id(), endsAtOnce.id()};
    void* const handle = dlopen(file, RTLD_NOW | RTLD_LOCAL);
    expect(handle != nullptr, "loading");
    const Library library = findLibrary(handle);
    expect(library.mainThreadId() == ownId(), "the thread that loaded it");
    expectList(library, before, "the threads that ran at load");
    std::erase(before, endsAtOnce.id());
    endsAtOnce.end();
    expectList(library, before, "a thread from before that has ended");
    checkStartsAndEnds(library, before);
    dlclose(handle);
    expectList(library, before, "the library stays");
    endsLate.end();
    checkUncommon(library);
    return 3;
}

[[noreturn]] void runExiting() {
    static Library library;
    library = findLibrary(RTLD_DEFAULT);
    static std::atomic<int> running{0};
    for (int thread = 0; thread < 3; ++thread) {
        std::thread([] {
            ++running;
            for (;;) {
                library.setName("still at work when the program ends");
                library.threadIds();
                library.name(ownId());
                std::thread([] { library.threadIds(); }).join();
            }
        }).detach();
    }
    while (running != 3) {
        std::this_thread::yield();
    }
    std::atexit([] { library.threadIds(); });
    std::exit(0);
}

}  // namespace

int main(int count, char** arguments) {
    alarm(240);
    findBackgroundThreads();
    const char* const mode = count > 1 ? arguments[1] : "";
    if (std::strcmp(mode, "present") == 0) {
        return runPresent();
    }
    if (std::strcmp(mode, "dlopen") == 0 && count > 2) {
        return runLoaded(arguments[2]);
    }
    if (std::strcmp(mode, "exiting") == 0) {
        runExiting();
    }
    return 2;
}
