// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

using WordCounts = std::unordered_map<std::string, std::size_t>;

/// The regular files below a folder. Throws std::filesystem::filesystem_error when the folder
/// cannot be read; what lies deeper and cannot be read is left out.
std::vector<std::filesystem::path> filesBelow(const std::filesystem::path& folder);

/// The words of one file (letters, digits and underscores), and how often each occurs.
WordCounts countWords(const std::filesystem::path& file);

/// Hands out files to any number of threads, over and over.
class FileRounds {
 public:
    explicit FileRounds(std::vector<std::filesystem::path> allFiles) : files(std::move(allFiles)) {}

    bool isEmpty() const { return files.empty(); }
    const std::filesystem::path& next() { return files[position++ % files.size()]; }
    std::size_t handedOut() const { return position; }

 private:
    std::vector<std::filesystem::path> files;
    std::atomic<std::size_t> position = 0;
};

/// The words of all files; any thread may merge and ask.
class WordIndex {
 public:
    void merge(const WordCounts& counts);
    std::size_t size() const;

 private:
    mutable std::mutex mutex;
    WordCounts words;
};
