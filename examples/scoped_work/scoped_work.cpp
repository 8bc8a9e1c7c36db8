// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Opens a folder: one job lists its files, one more for each file counts its lines. Wherever the
// work goes, it stays known what it is done for, and everybody adds to one account of it.
//
//     scoped_work [folder]

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <ThreadUtilities/ThreadUtilities.h>

#include "thread_pool.h"

namespace {

using vesko::external_input::context_store;
using vesko::external_input::hint;

/// Logs the named pieces of work of all threads.
class WorkLog : public ThreadUtilities::IScopedThreadCallback {
 public:
    void onScopedThreadStart() override { print("begin"); }
    void onScopedThreadEnd() override { print("end"); }

 private:
    static void print(const char* event) {
        std::ostringstream line;
        line << std::left << std::setw(6) << event << "thread "
             << ThreadUtilities::getThreadIdString() << "  " << ThreadUtilities::getThreadName();
        if (const auto current = hint::getExternalInputHint()) {
            line << "  for " << *current;
        }
        std::cout << (line.str() + '\n') << std::flush;
    }
};

std::ptrdiff_t countLines(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return std::count(std::istreambuf_iterator<char>(in), {}, '\n');
}

void openFolder(ThreadPool& pool, const std::filesystem::path& folder) {
    constexpr std::size_t mostFiles = 4;
    std::vector<std::filesystem::path> files;
    std::error_code unreadable;
    for (const auto& entry : std::filesystem::directory_iterator(folder, unreadable)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    files.resize(std::min(files.size(), mostFiles));

    // The store came with the job; whoever asks on this thread gets the one of its poster.
    context_store::getOrCreateStore()->addEntry(std::to_string(files.size()) + " files");
    for (const auto& file : files) {
        pool.post([file] {
            const std::string lines = std::to_string(countLines(file));
            context_store::getOrCreateStore()->addEntry(file.filename().string() + ": " + lines +
                                                        " lines");
        });
    }
}

/// 14:03:59.072, universal time.
std::string timeOfDay(long long milliseconds) {
    const std::chrono::milliseconds time(milliseconds);
    const std::chrono::hh_mm_ss clock(time - std::chrono::floor<std::chrono::days>(time));
    std::ostringstream text;
    text << std::setfill('0') << std::setw(2) << clock.hours().count() << ':' << std::setw(2)
         << clock.minutes().count() << ':' << std::setw(2) << clock.seconds().count() << '.'
         << std::setw(3) << clock.subseconds().count();
    return text.str();
}

}  // namespace

int main(int argc, char** argv) {
    const std::filesystem::path folder = argc > 1 ? argv[1] : ".";
    const auto log = std::make_shared<WorkLog>();
    ThreadUtilities::ScopedThreadName::registerCallback(log);
    ThreadPool pool(2);

    // An external input arrives: what follows on this thread is done for it, and so are the jobs.
    const auto input = hint::createExternalInputHint("Open " + folder.string());
    const auto store = context_store::getOrCreateStore();
    store->addHeader("Open " + folder.string());
    pool.post([&] { openFolder(pool, folder); });
    pool.wait();

    for (const auto& [isHeader, time, text] : store->getEntries()) {
        std::cout << timeOfDay(time) << (isHeader ? "  " : "    ") << text << '\n';
    }
}
