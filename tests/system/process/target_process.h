// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// A process to be looked at, and what it tells of itself.

#include <ThreadUtilities/ProcessCapture.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <fstream>
#include <functional>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "support/fork_child.h"
#include "support/target_thread.h"

namespace ThreadUtilities {

/// In memory that the target shares with the test.
struct Told {
    std::atomic<unsigned int> threadCount{0};
    std::array<std::atomic<unsigned int>, 16> threadIds{};
    std::atomic<long> earlyReturns{0};
    std::atomic<long> signals{0};
    std::atomic<long> progress{0};
    std::atomic<bool> mayEnd{false};

    /// By each thread of the target that is to be looked at.
    void announce() { threadIds[threadCount++] = static_cast<unsigned int>(gettid()); }
};

class SharedTold {
 public:
    SharedTold()
        : told(new(mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                        -1, 0)) Told) {}
    ~SharedTold() { munmap(told, sizeof(Told)); }
    SharedTold(const SharedTold&) = delete;
    SharedTold& operator=(const SharedTold&) = delete;

    Told* told;
};

/// Each body runs on a thread of its own of one fork child, which begins by announcing itself. The
/// child's main thread waits until it may end.
class TargetProcess : private SharedTold {
 public:
    using Body = std::function<void(Told&)>;

    explicit TargetProcess(const std::vector<Body>& bodies)
        : child([this, &bodies] {
              for (const Body& body : bodies) {
                  const unsigned int before = told->threadCount;
                  std::thread([this, body] {
                      told->announce();
                      body(*told);
                  }).detach();
                  while (told->threadCount == before) {
                      std::this_thread::yield();
                  }
              }
              while (!told->mayEnd) {
                  usleep(1000);
              }
              _exit(0);
          }) {
        EXPECT_TRUE(eventually([&] { return told->threadCount == bodies.size(); }));
    }

    unsigned int id() const { return child.id(); }
    unsigned int thread(std::size_t index) const { return told->threadIds[index]; }
    Told& tells() const { return *told; }
    bool endsWell() {
        told->mayEnd = true;
        return child.endedWell();
    }
    /// Whether all threads of the spinning kind get on, and nobody traces or stops the process.
    bool goesOn() const {
        const long before = told->progress;
        return eventually([&] { return told->progress > before + 1000; });
    }

 private:
    ForkChild child;
};

inline void spin(Told& told) {
    while (!told.mayEnd) {
        ++told.progress;
    }
}

/// A line of the file "status" of a thread, without its name.
inline std::string statusOf(unsigned int processId, unsigned int threadId,
                            const std::string& name) {
    std::ifstream file("/proc/" + std::to_string(processId) + "/task/" + std::to_string(threadId) +
                       "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(name + ":\t")) {
            return line.substr(name.size() + 2);
        }
    }
    return {};
}

inline bool becomes(unsigned int processId, unsigned int threadId, char state) {
    return eventually([&] { return statusOf(processId, threadId, "State").starts_with(state); });
}

}  // namespace ThreadUtilities
