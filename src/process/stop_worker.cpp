// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/stop_worker.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "linux/kernel_calls.h"
#include "platform/clock.h"
#include "process/seized_thread.h"
#include "process/stack_copy.h"
#include "process/task_files.h"

namespace ThreadUtilities::process {

namespace {

// Whether a stop would end no wait. Outside of a system call a thread is at rest in a page fault,
// which is simply made again.
bool bearsStop(const Stop& stop, Stop::Outcome& otherwise) {
    const Glance glance = stop.files->glance();
    switch (glance.sight) {
        case Glance::Sight::OnProcessor:
            return true;
        case Glance::Sight::OffProcessor:
            otherwise = Stop::Outcome::AtRest;
            return !glance.at.isInSystemCall;
        case Glance::Sight::Missing:
            otherwise = Stop::Outcome::Gone;
            return false;
        case Glance::Sight::Denied:
            otherwise = Stop::Outcome::Refused;
            return false;
    }
    return false;
}

/// Whether the thread is free again.
bool stopSeized(SeizedThread& seized, Stop& stop) {
    const bool stands = seized.stop(stop.registers);
    if (stands && seized.stopBegan() < stop.deadline) {
        stop.stack = copyStack(stop.threadId, stop.files->pageMap(), stop.registers[platform::Rsp],
                               {stop.copy.data(), stop.copySize});
        stop.outcome = Stop::Outcome::Copied;
    }
    const bool isFree = seized.letGo();
    if (stands) {
        stop.length = std::chrono::steady_clock::now() - seized.stopBegan();
    }
    return isFree;
}

// Looked at once more on the same worker, before the seizure and between it and the stop, since it
// may have come to rest: what a stop would do to its wait is not to happen. The second look also
// shows that the thread which was seized by its id is the one whose files are open.
bool makeStop(Stop& stop) {
    if (!bearsStop(stop, stop.outcome)) {
        return true;
    }
    SeizedThread seized(stop.threadId);
    if (seized.error() != 0) {
        stop.outcome = seized.error() == ESRCH ? Stop::Outcome::Gone : Stop::Outcome::Refused;
        return true;
    }
    if (!bearsStop(stop, stop.outcome)) {
        return seized.letGo();
    }
    stop.outcome = Stop::Outcome::NoAnswer;
    return stopSeized(seized, stop);
}

/// A thread that stands still waits for the worker to get a processor, on a busy machine for some
/// turns of others. Hence the worker, which takes some microseconds, goes before them, if it may;
/// else it has shorter turns than they have.
void takePrecedence() {
    platform::sleepPrecisely();
    const sched_param lowest{sched_get_priority_min(SCHED_FIFO)};
    sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &lowest);
}

/// While the object lives, threads that are started take no signals: the host's handlers are not to
/// run on them.
class SignalsBlocked {
 public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
    sigset_t before{};
};

}  // namespace

struct StopWorkers::Worker {
    std::mutex mutex;
    std::condition_variable changed;
    std::shared_ptr<Stop> job;
    bool isDone = false;
    bool mustEnd = false;
    bool hasEnded = false;  ///< or is about to, because it could not let go of a thread
    std::thread thread;
    int processor = -1;  ///< that it is bound to
    int processId = platform::kernelProcessId();

    // A fork child has the object and not its thread.
    bool isOfThisProcess() const { return processId == platform::kernelProcessId(); }

    // It takes the place of its caller, which waits. Elsewhere it would often be put where the
    // thread runs that is to be stopped: first it would hold that up, then wait for it.
    void moveToCaller() {
        const int current = sched_getcpu();
        if (current != processor && current >= 0 && current < CPU_SETSIZE) {
            cpu_set_t set;
            CPU_ZERO(&set);
            CPU_SET(current, &set);
            pthread_setaffinity_np(thread.native_handle(), sizeof(set), &set);
            processor = current;
        }
    }
};

StopWorkers::~StopWorkers() {
    for (const auto& worker : idle) {
        if (worker->isOfThisProcess()) {
            const std::lock_guard lock(worker->mutex);
            worker->mustEnd = true;
            worker->changed.notify_all();
        }
    }
    for (const auto& worker : idle) {
        if (worker->isOfThisProcess()) {
            worker->thread.join();
        } else {
            worker->thread.detach();
        }
    }
}

void StopWorkers::run(const std::shared_ptr<Worker>& worker) {
    takePrecedence();
    std::unique_lock lock(worker->mutex);
    bool isFree = true;
    while (isFree) {
        worker->changed.wait(lock, [&] { return worker->job != nullptr || worker->mustEnd; });
        if (worker->mustEnd) {
            return;
        }
        const std::shared_ptr<Stop> stop = std::move(worker->job);
        lock.unlock();
        isFree = makeStop(*stop);
        lock.lock();
        worker->isDone = true;
        worker->hasEnded = !isFree;
        worker->changed.notify_all();
    }
}

std::shared_ptr<StopWorkers::Worker> StopWorkers::start() {
    auto worker = std::make_shared<Worker>();
    const SignalsBlocked signalsBlocked;
    worker->thread = std::thread([worker] { run(worker); });
    return worker;
}

std::shared_ptr<StopWorkers::Worker> StopWorkers::take() {
    const std::lock_guard lock(mutex);
    while (!idle.empty()) {
        auto worker = std::move(idle.back());
        idle.pop_back();
        if (worker->isOfThisProcess()) {
            return worker;
        }
        worker->thread.detach();
    }
    return start();
}

// A worker that has not let go ends by itself, and one that does not come back from the system ends
// when it does.
void StopWorkers::giveBack(std::shared_ptr<Worker> worker, bool isUsable) {
    constexpr std::size_t mostIdle = 8;
    const std::lock_guard lock(mutex);
    if (isUsable && idle.size() < mostIdle) {
        idle.push_back(std::move(worker));
        return;
    }
    const std::lock_guard workerLock(worker->mutex);
    worker->mustEnd = true;
    worker->changed.notify_all();
    worker->thread.detach();
}

/// A worker while one stop is made; given back on every path, a caller's cancellation too.
struct StopWorkers::Loan {
    explicit Loan(StopWorkers& lender) : workers(lender), worker(lender.take()) {}
    ~Loan() { workers.giveBack(std::move(worker), isUsable); }
    Loan(const Loan&) = delete;
    Loan& operator=(const Loan&) = delete;

    StopWorkers& workers;
    std::shared_ptr<Worker> worker;
    bool isUsable = false;
};

bool StopWorkers::make(const std::shared_ptr<Stop>& stop) {
    constexpr auto untilTaken = std::chrono::milliseconds(5);
    stop->copy.resize(stop->copySize);
    stop->outcome = Stop::Outcome::NoAnswer;
    stop->length = {};
    Loan loan(*this);
    Worker& worker = *loan.worker;
    worker.moveToCaller();
    std::unique_lock lock(worker.mutex);
    worker.job = stop;
    worker.isDone = false;
    worker.changed.notify_all();
    const bool isDone =
        worker.changed.wait_until(lock, stop->deadline + untilTaken, [&] { return worker.isDone; });
    loan.isUsable = isDone && !worker.hasEnded;
    return isDone;
}

}  // namespace ThreadUtilities::process
