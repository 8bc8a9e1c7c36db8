// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <ThreadUtilities/ScopedThreadName.h>

/// A small thread pool. Its jobs run under the name of the line that posted them, and with that
/// thread's hint and context store.
class ThreadPool {
 public:
    using Location = vesko::source::location;

    explicit ThreadPool(int threads) {
        for (int i = 0; i < threads; ++i) {
            workers.emplace_back([this] { work(); });
        }
    }

    /// Runs what has been posted, then ends.
    ~ThreadPool() {
        {
            const std::lock_guard lock(mutex);
            ending = true;
        }
        changed.notify_all();
        for (std::thread& worker : workers) {
            worker.join();
        }
    }

    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    void post(std::function<void()> job, Location postedFrom = Location::current()) {
        {
            const std::lock_guard lock(mutex);
            jobs.emplace_back(std::move(job), std::move(postedFrom));
            ++unfinished;
        }
        changed.notify_all();
    }

    /// Returns when all jobs are done, those that jobs have posted included.
    void wait() {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return unfinished == 0; });
    }

 private:
    void work() {
        const ThreadUtilities::ScopedThreadName idle("idle", false);
        std::unique_lock lock(mutex);
        for (;;) {
            changed.wait(lock, [this] { return ending || !jobs.empty(); });
            if (jobs.empty()) {
                return;
            }
            auto [job, postedFrom] = std::move(jobs.front());
            jobs.pop_front();
            lock.unlock();
            {
                const ThreadUtilities::ScopedThreadName name(postedFrom);
                job();
            }
            lock.lock();
            --unfinished;
            changed.notify_all();
        }
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::pair<std::function<void()>, Location>> jobs;
    int unfinished = 0;
    bool ending = false;
    std::vector<std::thread> workers;
};
