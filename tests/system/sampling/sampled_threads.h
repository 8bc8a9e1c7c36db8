#pragma once

#include <ThreadUtilities/Threads.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <latch>
#include <string>
#include <thread>

namespace ThreadUtilities {

// Both kept whole, so that a sample of the spinning thread has a return address in `spinUntil`.
[[gnu::noinline, gnu::noclone]] inline void spinABit() {
    for (int turn = 0; turn < 100'000; ++turn) {
        asm volatile("");
    }
}
[[gnu::noinline, gnu::noclone]] inline void spinUntil(const std::atomic<bool>& stop) {
    while (!stop) {
        spinABit();
    }
}

/// One named thread that spins and one that waits in `poll`, from construction to destruction.
class SampledThreads {
 public:
    SampledThreads() {
        if (pipe(ends) != 0) {
            std::abort();
        }
        spinner = std::jthread([this] { announce("spinner", [this] { spinUntil(stop); }); });
        poller = std::jthread([this] {
            announce("poller", [this] {
                pollfd readable{ends[0], POLLIN, 0};
                poll(&readable, 1, -1);
            });
        });
        ready.wait();
    }
    ~SampledThreads() {
        stop = true;
        close(ends[1]);
        spinner.join();
        poller.join();
        close(ends[0]);
    }
    SampledThreads(const SampledThreads&) = delete;
    SampledThreads& operator=(const SampledThreads&) = delete;

    unsigned int spinnerId() const { return spinnerThread; }

 private:
    template <typename Body>
    void announce(const std::string& name, Body body) {
        setThreadName(name);
        if (name == "spinner") {
            spinnerThread = getThreadId();
        }
        ready.count_down();
        body();
    }

    std::atomic<bool> stop = false;
    std::atomic<unsigned int> spinnerThread = 0;
    std::latch ready{2};
    int ends[2] = {-1, -1};
    std::jthread spinner;
    std::jthread poller;
};

}  // namespace ThreadUtilities
