// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <string_view>
#include <system_error>

#include "commands.h"
#include "read/report_text.h"
#include "report/report_reader.h"
#include "support/complaints.h"

namespace ThreadUtilities::companion {
namespace {

/// Standard output. Behind a pipe or on a terminal each piece is seen at once.
class Output {
 public:
    Output() {
        struct stat status = {};
        isFile = fstat(STDOUT_FILENO, &status) == 0 && S_ISREG(status.st_mode);
    }

    void write(std::string_view text) {
        if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
            (!isFile && std::fflush(stdout) != 0)) {
            fail();
        }
    }
    void finish() {
        if (std::fflush(stdout) != 0) {
            fail();
        }
    }

 private:
    [[noreturn]] static void fail() {
        throw std::system_error(errno, std::generic_category(), "standard output");
    }

    bool isFile = false;
};

class Reader : public ReportSink {
 public:
    Reader(const ReadOptions& readOptions, const std::string& inputName)
        : options(readOptions),
          symbols(readOptions.symbols),
          terminal(Terminal::ofOutput()),
          complaints(inputName) {}

    void onText(std::string_view lines) override {
        output.write(options.json ? textJson(lines) : std::string(lines));
    }
    void onProfile(Profile&& profile) override {
        prepare();
        output.write(options.json ? profileJson(profile, frames, symbols)
                                  : profileText(profile, frames, symbols, terminal, options.all));
    }
    void onThreads(ThreadReport&& report) override {
        prepare();
        output.write(options.json ? threadsJson(report, frames, symbols)
                                  : threadsText(report, frames, symbols, terminal));
    }
    void onStack(StackText&& stack) override {
        prepare();
        output.write(options.json ? stackJson(stack, frames, symbols)
                                  : stackText(stack, frames, symbols, terminal));
    }
    void onComplaint(const Complaint& complaint) override {
        isCutOff = isCutOff || complaint.isCutOff;
        complaints.write(complaint);
    }

    int finish(const std::string& inputName) {
        if (options.json && hasReport) {
            output.write(symbolsJson(frames, symbols));
        }
        output.finish();
        if (!hasReport) {
            throw InputError(inputName + ": no report of ThreadUtilities in it");
        }
        std::fprintf(stderr, "thread-utilities: %s", symbols.summary().c_str());
        if (symbols.isOfAnotherSystem()) {
            throw InputError(inputName +
                             ": a report of Windows, for whose modules no symbols are here");
        }
        if (isCutOff) {
            return exitBadInput;
        }
        return symbols.isComplete() && complaints.size() == 0 ? exitComplete : exitPartial;
    }

    FrameTable frames;

 private:
    void prepare() {
        hasReport = true;
        symbols.resolve(frames);
    }

    const ReadOptions& options;
    Symbols symbols;
    Terminal terminal;
    ComplaintLog complaints;
    Output output;
    bool hasReport = false;
    bool isCutOff = false;
};

}  // namespace

int runRead(const ReadOptions& options) {
    const bool isStandardInput = options.file.empty() || options.file == "-";
    const std::string inputName = isStandardInput ? "standard input" : options.file.string();
    Reader reader(options, inputName);
    readReports(openInput(options.file), reader.frames, reader);
    return reader.finish(inputName);
}

}  // namespace ThreadUtilities::companion
