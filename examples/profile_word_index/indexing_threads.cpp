// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "indexing_threads.h"

#include <ThreadUtilities/Threads.h>

#include <chrono>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr std::size_t longestQueue = 64;
constexpr int filesPerBatch = 200;

}  // namespace

IndexingThreads::IndexingThreads(FileRounds& fileRounds, WordIndex& wordIndex)
    : files(fileRounds), index(wordIndex) {
    startThread("parse 1", [this] { parse(); });
    startThread("parse 2", [this] { parse(); });
    startThread("merge", [this] { merge(); });
    startThread("batch starter", [this] { startBatches(); });
    startThread("command wait", [this] { waitForCommand(); });
    startThread("progress watch", [this] { watchProgress(); });
}

IndexingThreads::~IndexingThreads() {
    {
        const std::lock_guard lock(mutex);
        stopping = true;
    }
    changed.notify_all();
    command.send();
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void IndexingThreads::startThread(const std::string& name, std::function<void()> body) {
    threads.emplace_back([name, body = std::move(body)] {
        ThreadUtilities::setThreadName(name);
        body();
    });
}

void IndexingThreads::parse() {
    for (;;) {
        submit(countWords(files.next()));
        const std::lock_guard lock(mutex);
        if (stopping) {
            return;
        }
    }
}

void IndexingThreads::submit(WordCounts counts) {
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return stopping || counted.size() < longestQueue; });
    counted.push_back(std::move(counts));
    changed.notify_all();
}

void IndexingThreads::merge() {
    std::unique_lock lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return stopping || !counted.empty(); });
        if (stopping) {
            return;
        }
        const WordCounts counts = std::move(counted.front());
        counted.pop_front();
        changed.notify_all();
        lock.unlock();
        index.merge(counts);
        lock.lock();
    }
}

void IndexingThreads::startBatches() {
    std::unique_lock lock(mutex);
    for (int number = 1; !stopping; ++number) {
        lock.unlock();
        std::thread batch([this, number] {
            ThreadUtilities::setThreadName("batch " + std::to_string(number));
            for (int file = 0; file < filesPerBatch; ++file) {
                submit(countWords(files.next()));
            }
        });
        batch.join();
        lock.lock();
        changed.wait_for(lock, 200ms, [this] { return stopping; });
    }
}

void IndexingThreads::waitForCommand() {
    command.wait();
}

void IndexingThreads::watchProgress() {
    std::unique_lock lock(mutex);
    while (!stopping) {
        lock.unlock();
        std::this_thread::sleep_for(100ms);
        lock.lock();
    }
}
