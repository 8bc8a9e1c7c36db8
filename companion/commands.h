// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// The commands of the program. Each returns the exit status.

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "symbols/symbols.h"

namespace ThreadUtilities::companion {

/// Everything was read, and every frame has a name.
constexpr int exitComplete = 0;
/// Everything was read; some frames have no name. The error stream says which.
constexpr int exitPartial = 1;
/// Bad input or arguments.
constexpr int exitBadInput = 2;

struct ReadOptions {
    /// Empty or "-": the standard input.
    std::filesystem::path file;
    SymbolOptions symbols;
    bool all = false;
    bool json = false;
};

struct ConvertOptions {
    std::filesystem::path file;
    /// html, folded, speedscope, pprof or firefox.
    std::string format;
    /// Empty: beside the input, or for `folded` the standard output. "-": the standard output.
    std::filesystem::path output;
    SymbolOptions symbols;
};

struct CompareOptions {
    std::filesystem::path before;
    std::filesystem::path after;
    /// Empty: text on the standard output; else the picture.
    std::filesystem::path html;
    SymbolOptions symbols;
    bool all = false;
};

struct StacksOptions {
    unsigned int processId = 0;
    /// Looks again every so often.
    std::optional<std::chrono::seconds> watch;
    SymbolOptions symbols;
    bool raw = false;
    bool json = false;
};

struct SampleOptions {
    unsigned int processId = 0;
    std::chrono::seconds duration{10};
    std::chrono::milliseconds interval{10};
    /// All threads without one.
    std::optional<unsigned int> threadId;
    /// Its ending says in which format; empty or "-": as `read` shows it, on the standard output.
    std::filesystem::path output;
    SymbolOptions symbols;
};

int runRead(const ReadOptions& options);
int runConvert(const ConvertOptions& options);
int runCompare(const CompareOptions& options);
int runStacks(const StacksOptions& options);
int runSample(const SampleOptions& options);

}  // namespace ThreadUtilities::companion
