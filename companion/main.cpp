// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <string>

#include "commands.h"
#include "report/report_reader.h"

namespace {

using namespace ThreadUtilities::companion;

void addSymbolOptions(CLI::App& command, SymbolOptions& symbols) {
    command
        .add_option("--symbols", symbols.folders,
                    "Look for debug information here first: a .build-id tree or plain files")
        ->type_name("FOLDER")
        ->allow_extra_args(false);
    command.add_option("--pid", symbols.processId, "Use the files of this running process")
        ->type_name("PID");
    command.add_flag("--short", symbols.shortNames, "Leave template arguments out of names");
}

int run(int argumentCount, char** arguments) {
    CLI::App program("Makes ThreadUtilities' reports readable: functions, files and lines.",
                     "thread-utilities");
    program.require_subcommand(1);
    program.set_version_flag("--version", "thread-utilities " THREAD_UTILITIES_VERSION);

    ReadOptions read;
    CLI::App& readCommand = *program.add_subcommand("read", "The report for a person to read");
    readCommand
        .add_option("file", read.file,
                    "The report, or a log with reports in it (- or none: standard input)")
        ->type_name("FILE");
    readCommand.add_flag("--all", read.all, "Show calls below 1 % too");
    readCommand.add_flag("--json", read.json, "Write JSON, one value a line");
    addSymbolOptions(readCommand, read.symbols);

    ConvertOptions convert;
    CLI::App& convertCommand = *program.add_subcommand("convert", "A profile in another format");
    convertCommand.add_option("file", convert.file, "The profile (-: standard input)")
        ->type_name("FILE")
        ->required();
    convertCommand
        .add_option("--to", convert.format, "The format; by default the ending of -o chooses")
        ->type_name("FORMAT")
        ->check(CLI::IsMember({"html", "folded", "speedscope", "pprof", "firefox"}));
    convertCommand.add_option("-o,--output", convert.output, "Where to write (-: standard output)")
        ->type_name("FILE");
    addSymbolOptions(convertCommand, convert.symbols);

    CompareOptions compare;
    CLI::App& compareCommand = *program.add_subcommand("compare", "What became slower");
    compareCommand.add_option("before", compare.before, "The profile before")
        ->type_name("BEFORE")
        ->required();
    compareCommand.add_option("after", compare.after, "The profile after")
        ->type_name("AFTER")
        ->required();
    compareCommand.add_option("--html", compare.html, "Write the difference as a picture")
        ->type_name("FILE");
    compareCommand.add_flag("--all", compare.all, "Show all functions");
    addSymbolOptions(compareCommand, compare.symbols);

    try {
        program.parse(argumentCount, arguments);
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? exitComplete : exitBadInput;
    }
    if (readCommand.parsed()) {
        return runRead(read);
    }
    return convertCommand.parsed() ? runConvert(convert) : runCompare(compare);
}

}  // namespace

int main(int argumentCount, char** arguments) {
    try {
        return run(argumentCount, arguments);
    } catch (const std::exception& error) {
        std::cerr << "thread-utilities: " << error.what() << '\n';
        return exitBadInput;
    }
}
