// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Preloaded together with the library into programs that know of neither: looks at all threads of
// its process all the time, and samples them. What it counts lies in a file that is mapped, so that
// it is whole however the process ends. Environment, read once:
//
//   REAL_FOLDER    where the counts go, one file a process, and beside each the last report of its
//                  samples; without it nothing is done
//   REAL_INTERVAL  microseconds between two looks at all threads
//   REAL_NO_TABLES the program runs code without unwind tables

#include <ThreadUtilities/ThreadUtilities.h>
#include <dirent.h>
#include <elf.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

extern "C" void* _Unwind_Find_FDE(void* address, void* bases);

namespace {

// The driver knows this order.
enum Count {
    looks,
    captures,
    withFrames,
    toTheStart,       // the last frame is where threads begin
    atSecondTry,      // no frames and no reason at first
    ended,            // from here on reasons
    uninterruptible,  // state D
    kernelWorker,
    raw,  // blocks signals by the raw call, and runs
    filter,
    traced,
    noTables,
    unexplained,
    threads,
    threadsWithFrames,
    notListed,  // the kernel's list has a thread that the library's has not
    samples,
    countOfCounts,
    nameOfUnexplained = countOfCounts,  // two words
    words = nameOfUnexplained + 2
};

using Counts = std::array<std::uint64_t, words>;

std::array<char, 200> folder;
unsigned int interval;
bool runsCodeWithoutTables;
Counts* counts;

void add(Count count, std::uint64_t howMany = 1) {
    __atomic_fetch_add(&(*counts)[count], howMany, __ATOMIC_RELAXED);
}

// Whole at any time, however the process ends.
void keepReport(const std::string& report) {
    const std::string path = std::string(folder.data()) + "/" + std::to_string(getpid());
    const int file = open((path + ".new").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0) {
        return;
    }
    const auto written = write(file, report.data(), report.size());
    close(file);
    if (written == static_cast<ssize_t>(report.size())) {
        rename((path + ".new").c_str(), (path + ".report").c_str());
    }
}

std::string contentOf(const std::string& path) {
    std::string text;
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::array<char, 4096> piece{};
    for (ssize_t length = 0; (length = read(file, piece.data(), piece.size())) > 0;) {
        text.append(piece.data(), static_cast<std::size_t>(length));
    }
    if (file >= 0) {
        close(file);
    }
    return text;
}

std::string fileOf(unsigned int thread, const char* name) {
    return contentOf("/proc/self/task/" + std::to_string(thread) + "/" + name);
}

std::string_view field(const std::string& status, const char* key) {
    const auto at = status.find(std::string("\n") + key + ":\t");
    if (at == std::string::npos) {
        return {};
    }
    const auto begin = at + std::strlen(key) + 3;
    return std::string_view(status).substr(begin, status.find('\n', begin) - begin);
}

// A thread that waits says where; of one that runs it is not known.
bool mayStandInCodeWithoutTables(unsigned int thread) {
    const std::string where = fileOf(thread, "syscall");
    const auto last = where.rfind("0x");
    if (last == std::string::npos) {
        return runsCodeWithoutTables;
    }
    std::array<void*, 3> bases{};
    const auto address = std::strtoull(where.c_str() + last, nullptr, 16);
    return _Unwind_Find_FDE(reinterpret_cast<void*>(address), bases.data()) == nullptr;
}

// State and flags, of a thread's stat file.
std::pair<char, unsigned long> kernelFlags(const std::string& stat) {
    char state = 0;
    unsigned long flags = 0;
    std::sscanf(stat.c_str() + stat.rfind(')') + 1, " %c %*d %*d %*d %*d %*d %lu", &state, &flags);
    return {state, flags};
}

// Why a thread has no frames, as far as its status shows it.
Count reasonFor(unsigned int thread) {
    constexpr unsigned long isWorker = 0x10 | 0x4000 | 0x200000;  // io_uring's, user's, kernel's
    constexpr unsigned long long captureSignal = 1ULL << 32U;
    const std::string stat = fileOf(thread, "stat");
    const std::string status = fileOf(thread, "status");
    if (stat.empty() || status.empty()) {
        return ended;
    }
    const auto [state, flags] = kernelFlags(stat);
    if (state == 'Z' || state == 'X') {
        return ended;
    }
    if (state == 'D') {
        return uninterruptible;
    }
    if ((flags & isWorker) != 0) {
        return kernelWorker;
    }
    if (field(status, "TracerPid") != "0") {
        return traced;
    }
    if (state == 'R' &&
        (std::strtoull(field(status, "SigBlk").data(), nullptr, 16) & captureSignal)) {
        return raw;
    }
    if (field(status, "Seccomp") == "1") {
        return filter;
    }
    return mayStandInCodeWithoutTables(thread) ? noTables : unexplained;
}

void noteNameOf(unsigned int thread) {
    const std::string name = fileOf(thread, "comm");
    std::memcpy(&(*counts)[nameOfUnexplained], name.data(), std::min<std::size_t>(name.size(), 15));
}

class Looker {
 public:
    Looker() : entry_(getauxval(AT_ENTRY)) {
        std::array<unsigned long long, 256> own{};
        const auto count = ThreadUtilities::getStackTrace(ThreadUtilities::getThreadId(),
                                                          own.data(), own.size(), true);
        outermost_ = count != 0 ? own[count - 1] : 0;
    }

    void lookAtAll() {
        const std::vector<unsigned int> before = threadsOfTheKernel();
        const std::vector<unsigned int> listed = ThreadUtilities::getThreadIds();
        const std::vector<unsigned int> after = threadsOfTheKernel();
        for (const unsigned int thread : before) {
            if (!contains(listed, thread) && contains(after, thread) && !isEnding(thread)) {
                add(notListed);
            }
            if (thread != ThreadUtilities::getThreadId()) {
                lookAt(thread);
            }
        }
        add(looks);
    }

 private:
    static bool contains(const std::vector<unsigned int>& all, unsigned int one) {
        return std::find(all.begin(), all.end(), one) != all.end();
    }

    // The kernel lists a thread a little longer than it lives.
    static bool isEnding(unsigned int thread) {
        constexpr unsigned long exiting = 0x4;
        const std::string stat = fileOf(thread, "stat");
        return stat.empty() || (kernelFlags(stat).second & exiting) != 0;
    }

    static std::vector<unsigned int> threadsOfTheKernel() {
        std::vector<unsigned int> all;
        DIR* tasks = opendir("/proc/self/task");
        if (tasks == nullptr) {
            return ThreadUtilities::getThreadIds();
        }
        while (const dirent* entry = readdir(tasks)) {
            if (entry->d_name[0] != '.') {
                all.push_back(static_cast<unsigned int>(std::strtoul(entry->d_name, nullptr, 10)));
            }
        }
        closedir(tasks);
        return all;
    }

    void lookAt(unsigned int thread) {
        add(captures);
        const auto [known, isNew] = seen_.try_emplace(thread, false);
        if (isNew) {
            add(threads);
        }
        Count result = unexplained;
        // It may have been about to begin or to end: its second answer counts, and is told.
        for (int attempt = 0; result == unexplained && attempt < 3; ++attempt) {
            const bool has = hasFrames(thread);
            result = has ? withFrames : reasonFor(thread);
            if (has && attempt != 0) {
                add(atSecondTry);
            }
        }
        add(result);
        if (result == unexplained) {
            noteNameOf(thread);
        }
        if (result == withFrames && !known->second) {
            known->second = true;
            add(threadsWithFrames);
        }
    }

    bool hasFrames(unsigned int thread) {
        std::array<unsigned long long, 256> frames{};
        const auto count =
            ThreadUtilities::getStackTrace(thread, frames.data(), frames.size(), true);
        if (count == 0) {
            return false;
        }
        const auto last = frames[count - 1];
        if (last == outermost_ || (last > entry_ && last < entry_ + 64)) {
            add(toTheStart);
        }
        return true;
    }

    unsigned long long entry_;
    unsigned long long outermost_ = 0;
    std::unordered_map<unsigned int, bool> seen_;
};

void lookForAWhile(Looker& looker) {
    auto next = std::chrono::steady_clock::now();
    const auto end = next + std::chrono::milliseconds(500);
    while (next < end) {
        looker.lookAtAll();
        // No more looks for those that were missed.
        next =
            std::max(next + std::chrono::microseconds(interval), std::chrono::steady_clock::now());
        std::this_thread::sleep_until(next);
    }
}

void sampleForOneSecond() {
    constexpr std::string_view thread = "Thread ";
    const std::string report =
        ThreadUtilities::sampleAllThreads(std::chrono::seconds(1), std::chrono::milliseconds(5));
    keepReport(report);
    for (std::size_t at = 0; (at = report.find(thread, at)) != std::string::npos; ++at) {
        const auto bracket = report.find('[', at);
        if (bracket != std::string::npos) {
            add(samples, std::strtoull(report.c_str() + bracket + 1, nullptr, 10));
        }
    }
}

// By turns, so that the agent's own threads are not sent signals: each would wake a thread of the
// host that waits by epoll for a signalfd, within the kernel.
void* lookAndSample(void*) {
    Looker looker;
    for (;;) {
        lookForAWhile(looker);
        sampleForOneSecond();
    }
}

// Signals of the host are for the host's threads.
void startThread(void* (*body)(void*)) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, body, nullptr) == 0) {
        pthread_detach(thread);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void begin() {
    const std::string path = std::string(folder.data()) + "/" + std::to_string(getpid());
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0) {
        return;
    }
    void* mapped = MAP_FAILED;
    if (ftruncate(file, sizeof(Counts)) == 0) {
        mapped = mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    }
    close(file);
    if (mapped == MAP_FAILED) {
        return;
    }
    counts = static_cast<Counts*>(mapped);
    startThread(lookAndSample);
}

[[gnu::constructor]] void load() {
    const char* where = getenv("REAL_FOLDER");
    if (where == nullptr || std::strlen(where) >= folder.size()) {
        return;
    }
    std::strcpy(folder.data(), where);
    const char* pause = getenv("REAL_INTERVAL");
    interval = pause != nullptr ? static_cast<unsigned int>(std::atoi(pause)) : 5000;
    runsCodeWithoutTables = getenv("REAL_NO_TABLES") != nullptr;
    pthread_atfork(nullptr, nullptr, begin);
    begin();
}

}  // namespace
