// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Indexes the words of a folder's files on several threads, and profiles itself meanwhile.
//
//     profile_word_index [--seconds N] [--interval MILLISECONDS] [FOLDER]

#include <ThreadUtilities/Sampling.h>
#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "indexing_threads.h"
#include "thread_totals.h"
#include "word_index.h"

namespace {

struct Options {
    std::filesystem::path folder = "/usr/include";
    std::chrono::seconds duration{3};
    std::chrono::milliseconds interval{20};
};

int positiveNumber(std::string_view option, const char* text) {
    const std::string_view digits = text != nullptr ? text : "";
    int number = 0;
    const auto [end, error] = std::from_chars(digits.begin(), digits.end(), number);
    if (error != std::errc() || end != digits.end() || number < 1) {
        throw std::invalid_argument(std::string(option) + " wants a number of 1 or more, not \"" +
                                    std::string(digits) + "\"");
    }
    return number;
}

Options parseArguments(char** arguments) {
    Options options;
    bool hasFolder = false;
    for (char** argument = arguments + 1; *argument != nullptr; ++argument) {
        const std::string_view text = *argument;
        if (text == "--seconds") {
            options.duration = std::chrono::seconds(positiveNumber(text, argument[1]));
            ++argument;
        } else if (text == "--interval") {
            options.interval = std::chrono::milliseconds(positiveNumber(text, argument[1]));
            ++argument;
        } else if (text.starts_with('-') || hasFolder) {
            throw std::invalid_argument("unexpected argument \"" + std::string(text) + "\"");
        } else {
            options.folder = text;
            hasFolder = true;
        }
    }
    return options;
}

void printTotals(const std::string& report) {
    std::size_t endedThreads = 0;
    std::size_t endedSamples = 0;
    std::printf("Samples  Thread\n");
    for (const ThreadTotal& thread : threadTotals(report)) {
        if (thread.name.empty()) {
            ++endedThreads;
            endedSamples += thread.samples;
        } else {
            std::printf("%7zu  %s (%s)\n", thread.samples, thread.name.c_str(), thread.id.c_str());
        }
    }
    std::printf("%7zu  %zu threads that ended before the report\n", endedSamples, endedThreads);
}

void run(const Options& options) {
    FileRounds files(filesBelow(options.folder));
    if (files.isEmpty()) {
        throw std::invalid_argument(options.folder.string() + " has no files");
    }
    ThreadUtilities::setThreadName("main");
    WordIndex index;
    std::string report;
    std::pair<std::string, std::string> stacks;
    {
        const IndexingThreads threads(files, index);
        report = ThreadUtilities::sampleAllThreads(options.duration, options.interval);
        stacks = ThreadUtilities::getAllThreadStackTrace({});
    }
    std::cout << report;
    printTotals(report);
    std::printf("\nIndexed %zu files, found %zu different words.\n", files.handedOut(),
                index.size());
    std::cout << "\nWhere every thread stood right after the profile:\n\n"
              << stacks.first << stacks.second << '\n';
}

}  // namespace

int main(int, char** arguments) {
    try {
        run(parseArguments(arguments));
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "profile_word_index: " << error.what() << '\n'
                  << "usage: profile_word_index [--seconds N] [--interval MILLISECONDS] [FOLDER]\n";
        return 1;
    }
}
