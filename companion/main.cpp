// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>

#include "commands.h"
#include "report/report_reader.h"
#include "support/terminal.h"

namespace {

using namespace ThreadUtilities::companion;

/// For a process that runs, its own files are used anyway.
void addFolderOptions(CLI::App& command, SymbolOptions& symbols) {
    command
        .add_option("--symbols", symbols.folders,
                    "Look for debug information here first: a .build-id tree or plain files")
        ->type_name("FOLDER")
        ->check(CLI::ExistingPath)
        ->allow_extra_args(false);
    command.add_flag("--short", symbols.shortNames, "Leave template arguments out of names");
}

void addSymbolOptions(CLI::App& command, SymbolOptions& symbols) {
    addFolderOptions(command, symbols);
    command.add_option("--pid", symbols.processId, "Use the files of this running process")
        ->type_name("PID")
        ->check([](const std::string& id) {
            return access(("/proc/" + id).c_str(), F_OK) == 0 ? "" : id + ": no such process";
        });
}

void addProcess(CLI::App& command, unsigned int& processId) {
    command.add_option("pid", processId, "The process")->type_name("PID")->required();
}

CLI::App& addRead(CLI::App& program, ReadOptions& read) {
    CLI::App& command = *program.add_subcommand("read", "The report for a person to read");
    command
        .add_option("file", read.file,
                    "The report, or a log with reports in it (- or none: standard input)")
        ->type_name("FILE");
    command.add_flag("--all", read.all, "Show calls below 1 % too");
    command.add_flag("--json", read.json, "Write JSON, one value a line");
    addSymbolOptions(command, read.symbols);
    return command;
}

CLI::App& addConvert(CLI::App& program, ConvertOptions& convert) {
    CLI::App& command = *program.add_subcommand("convert", "A profile in another format");
    command.add_option("file", convert.file, "The profile (-: standard input)")
        ->type_name("FILE")
        ->required();
    command.add_option("--to", convert.format, "The format; by default the ending of -o chooses")
        ->type_name("FORMAT")
        ->check(CLI::IsMember({"html", "folded", "speedscope", "pprof", "firefox"}));
    command.add_option("-o,--output", convert.output, "Where to write (-: standard output)")
        ->type_name("FILE");
    addSymbolOptions(command, convert.symbols);
    return command;
}

void addCompare(CLI::App& program, CompareOptions& compare) {
    CLI::App& command = *program.add_subcommand("compare", "What became slower");
    command.add_option("before", compare.before, "The profile before")
        ->type_name("BEFORE")
        ->required();
    command.add_option("after", compare.after, "The profile after")->type_name("AFTER")->required();
    command.add_option("--html", compare.html, "Write the difference as a picture")
        ->type_name("FILE");
    command.add_flag("--all", compare.all, "Show all functions");
    addSymbolOptions(command, compare.symbols);
}

CLI::App& addStacks(CLI::App& program, StacksOptions& stacks, unsigned int& watchSeconds) {
    CLI::App& command = *program.add_subcommand(
        "stacks", "Where the threads of a process stand, and what they wait for");
    addProcess(command, stacks.processId);
    CLI::Option* const watch =
        command
            .add_option("--watch", watchSeconds, "Look again every so often: who has not moved?")
            ->type_name("SECONDS")
            ->check(CLI::Range(1, 86400));
    CLI::Option* const raw =
        command.add_flag("--raw", stacks.raw, "Write the library's own report of all threads")
            ->excludes(watch);
    command.add_flag("--json", stacks.json, "Write JSON, one value a line")
        ->excludes(watch)
        ->excludes(raw);
    addFolderOptions(command, stacks.symbols);
    return command;
}

CLI::App& addSample(CLI::App& program, SampleOptions& sample, unsigned int& durationSeconds,
                    unsigned int& intervalMilliseconds) {
    CLI::App& command =
        *program.add_subcommand("sample", "Where the threads of a process spend their time");
    addProcess(command, sample.processId);
    command.add_option("--duration", durationSeconds, "How long (10)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 1000000));
    command.add_option("--interval", intervalMilliseconds, "From sample to sample (10)")
        ->type_name("MILLISECONDS")
        ->check(CLI::Range(1, 60000));
    command.add_option("--thread", sample.threadId, "Sample this thread alone")->type_name("TID");
    command
        .add_option("-o,--output", sample.output,
                    "Where to write; the ending says what: .html, .txt (for the other commands), "
                    ".json, .pb.gz, .folded")
        ->type_name("FILE");
    addFolderOptions(command, sample.symbols);
    return command;
}

int run(int argumentCount, char** arguments) {
    CLI::App program(
        "Looks at running processes, and makes ThreadUtilities' reports readable: functions, files "
        "and lines.",
        "thread-utilities");
    program.require_subcommand(1);
    program.set_version_flag("--version", "thread-utilities " THREAD_UTILITIES_VERSION);
    ReadOptions read;
    const CLI::App& readCommand = addRead(program, read);
    ConvertOptions convert;
    const CLI::App& convertCommand = addConvert(program, convert);
    CompareOptions compare;
    addCompare(program, compare);
    StacksOptions stacks;
    unsigned int watchSeconds = 0;
    const CLI::App& stacksCommand = addStacks(program, stacks, watchSeconds);
    SampleOptions sample;
    unsigned int durationSeconds = 10;
    unsigned int intervalMilliseconds = 10;
    const CLI::App& sampleCommand =
        addSample(program, sample, durationSeconds, intervalMilliseconds);

    try {
        program.parse(argumentCount, arguments);
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? exitComplete : exitBadInput;
    }
    if (readCommand.parsed()) {
        return runRead(read);
    }
    if (stacksCommand.parsed()) {
        if (watchSeconds > 0) {
            stacks.watch = std::chrono::seconds(watchSeconds);
        }
        stacks.symbols.processId = stacks.processId;
        return runStacks(stacks);
    }
    if (sampleCommand.parsed()) {
        sample.duration = std::chrono::seconds(durationSeconds);
        sample.interval = std::chrono::milliseconds(intervalMilliseconds);
        sample.symbols.processId = sample.processId;
        return runSample(sample);
    }
    return convertCommand.parsed() ? runConvert(convert) : runCompare(compare);
}

/// A file that is mapped, and written anew meanwhile.
void onShortenedFile(int) {
    constexpr std::string_view text =
        "thread-utilities: a module or its debug information was shortened while it was read\n";
    [[maybe_unused]] const auto written = write(STDERR_FILENO, text.data(), text.size());
    _exit(exitBadInput);
}

/// Otherwise a file that is opened could become the standard output.
void occupyStandardDescriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) < 0) {
            open("/dev/null", O_RDONLY);
        }
    }
}

}  // namespace

int main(int argumentCount, char** arguments) {
    occupyStandardDescriptors();
    std::signal(SIGBUS, onShortenedFile);
    try {
        return run(argumentCount, arguments);
    } catch (const std::exception& error) {
        std::cerr << "thread-utilities: " << printable(error.what()) << '\n';
        return exitBadInput;
    }
}
