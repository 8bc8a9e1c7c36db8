// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// A program that finds the library the way its arguments say, and then compares what the library
// says of the program's threads with what the program knows. Ends with 0 when all is right.
//
//   loading_probe present              the library is there from the start, however it came
//   loading_probe dlopen <library>     the library is loaded when threads run already
//   loading_probe descriptor           the same, started by a file descriptor
//   loading_probe exiting              the program ends while threads use the library
//
// The library is only reached by look-up, so that the same program serves all ways of loading.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/forced_unwinding.h"
#include "support/parked_thread.h"
#include "support/sanitizers.h"

namespace {

using ThreadUtilities::ParkedThread;
using ThreadUtilities::threadsMayUnwind;
using ThreadUtilities::underThreadSanitizer;
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
#if defined(_LIBCPP_VERSION)
    find(library.setName,
         "_ZN15ThreadUtilities13setThreadNameERKNSt3__112basic_stringIcNS0_11char_"
         "traitsIcEENS0_9allocatorIcEEEE");
    find(library.name, "_ZN15ThreadUtilities13getThreadNameEj");
#else
    find(library.setName,
         "_ZN15ThreadUtilities13setThreadNameERKNSt7__cxx1112basic_stringIcSt11char_"
         "traitsIcESaIcEEE");
    find(library.name, "_ZN15ThreadUtilities13getThreadNameB5cxx11Ej");
#endif
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

std::string kernelName() {
    std::array<char, 16> name{};
    prctl(PR_GET_NAME, name.data());
    return name.data();
}
const std::string startName = kernelName();

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
    expect(ids == expected, what);
}

void checkStartsAndEnds(const Library& library, Ids expected) {
    expectList(library, expected, "before the first start");
    expect(library.name(ownId()).empty(), "a program that nobody named");
    library.setName("the creator of all the threads");
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
    library.setName("");
    expect(kernelName() == startName, "the name goes back to what it was");
    const ParkedThread named([&] { library.setName("a name that is kept in memory"); });
    expected.push_back(named.id());
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &limit);
    expectList(library, expected, "no descriptor is free");
    expect(library.name(named.id()) == "a name that is kept in memory", "nor needed for a name");
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// The first thread may end before the others; the rest of the check runs on a second one.
void checkEndOfFirstThread(const Library& library) {
    prctl(PR_SET_NAME, "by others");
    std::thread([library, firstThread = pthread_self()] {
        pthread_join(firstThread, nullptr);
        const auto first = static_cast<unsigned int>(getpid());
        expect(library.name(first).empty(), "no name, though the kernel keeps one");
        const Ids ids = library.threadIds();
        expect(std::count(ids.begin(), ids.end(), ownId()) == 1, "the last thread");
        expect(std::count(ids.begin(), ids.end(), first) == 0, "the first thread ended");
        expect(library.name(first).empty(), "nor once its end is told");
        _exit(0);
    }).detach();
    if constexpr (threadsMayUnwind) {
        pthread_exit(nullptr);
    }
    syscall(SYS_exit, 0);
}

// ThreadSanitizer has no state for a first thread that is joined.
[[noreturn]] void checkEnd(const Library& library) {
    if constexpr (!underThreadSanitizer) {
        checkEndOfFirstThread(library);
    }
    _exit(0);
}

[[noreturn]] void runPresent() {
    const Library library = findLibrary(RTLD_DEFAULT);
    expect(library.mainThreadId() == ownId(), "main thread");
    checkStartsAndEnds(library, {ownId()});
    checkEnd(library);
}

[[noreturn]] void runLoaded(const char* file) {
    ParkedThread endsLate;
    ParkedThread endsAtOnce;
    Ids before{ownId(), endsLate.id(), endsAtOnce.id()};
    void* const handle = dlopen(file, RTLD_NOW | RTLD_LOCAL);
    expect(handle != nullptr, "loading");
    const Library library = findLibrary(handle);
    expect(library.mainThreadId() == ownId(), "the thread that loaded it");
    expectList(library, before, "the threads that ran at load");
    expect(library.name(endsLate.id()).empty(), "nobody named them");
    std::erase(before, endsAtOnce.id());
    endsAtOnce.end();
    expectList(library, before, "a thread from before that has ended");
    checkStartsAndEnds(library, before);
    dlclose(handle);
    expectList(library, before, "the library stays");
    endsLate.end();
    {
        // Known by their names alone, in place of those from before.
        const ParkedThread one([&] { library.setName("one"); });
        const ParkedThread other([&] { library.setName("other"); });
        expectList(library, {ownId(), one.id(), other.id()}, "as many as at load, but others");
    }
    checkEnd(library);
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
        runPresent();
    }
    if (std::strcmp(mode, "descriptor") == 0) {
        std::array<char, 8> present{"present"};
        std::array<char*, 3> again{arguments[0], present.data(), nullptr};
        fexecve(open("/proc/self/exe", O_RDONLY), again.data(), environ);
    }
    if (std::strcmp(mode, "dlopen") == 0 && count > 2) {
        runLoaded(arguments[2]);
    }
    if (std::strcmp(mode, "exiting") == 0) {
        runExiting();
    }
    return 2;
}
