// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "word_index.h"

/// Indexes files on several named threads, from construction until destruction.
class IndexingThreads {
 public:
    IndexingThreads(FileRounds& fileRounds, WordIndex& wordIndex);
    ~IndexingThreads();

    IndexingThreads(const IndexingThreads&) = delete;
    IndexingThreads& operator=(const IndexingThreads&) = delete;

 private:
    void startThread(const std::string& name, std::function<void()> body);

    void parse();           ///< busy: counts the words of one file after another
    void merge();           ///< waits for counts, and merges them under the index's lock
    void startBatches();    ///< starts one short-lived thread after another
    void waitForCommand();  ///< waits in the system for a command that comes at the end
    void watchProgress();   ///< sleeps most of the time

    void submit(WordCounts counts);

    FileRounds& files;
    WordIndex& index;

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<WordCounts> counted;  ///< parsed files that wait to be merged
    bool stopping = false;

    Command command;
    std::vector<std::thread> threads;
};
