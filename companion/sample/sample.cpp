// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/ProcessCapture.h>
#include <ThreadUtilities/Sampling.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <map>
#include <ratio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "commands.h"
#include "convert/formats.h"
#include "convert/output_file.h"
#include "convert/source.h"
#include "process/target.h"
#include "read/report_text.h"
#include "report/report_format.h"
#include "report/report_reader.h"
#include "sample/process_sampler.h"
#include "support/terminal.h"
#include "symbols/module_files.h"
#include "waits/times.h"

namespace ThreadUtilities::companion {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::atomic<bool> interrupted = false;
static_assert(std::atomic<bool>::is_always_lock_free, "it is set in a signal handler");

/// The first Ctrl-C ends the run, and the second the program.
void endRunByCtrlC() {
    struct sigaction action = {};
    action.sa_handler = [](int) { interrupted = true; };
    action.sa_flags = SA_RESETHAND | SA_RESTART;
    for (const int signal : {SIGINT, SIGTERM}) {
        sigaction(signal, &action, nullptr);
    }
}

/// Ends a run by way of the callback. Its report is lost by that, which nobody needs: the samples
/// are the sampler's. (To end the worker by pthread_exit would keep the report, but not every C++
/// library survives that.)
struct EndOfRun {};

class Run {
 public:
    Run(const SampleOptions& sampleOptions, FrameTable& frames)
        : options(sampleOptions),
          sampler(capture, options.threadId, options.interval, frames),
          ticksPerPass(
              static_cast<std::uint64_t>((options.interval + longestTick - 1ms) / longestTick)),
          isTerminal(isatty(STDERR_FILENO) != 0) {}

    void run() {
        begin = Clock::now();
        const std::clock_t processorBegin = std::clock();
        const unsigned int clock = options.threadId.value_or(options.processId);
        try {
            sampleProcessThread(options.processId, clock, options.duration,
                                options.interval / static_cast<int>(ticksPerPass),
                                [this](unsigned int, const unsigned int&,
                                       std::vector<unsigned long long>&, unsigned long long) {
                                    tick();
                                    return 0ULL;
                                });
        } catch (const EndOfRun&) {  // NOLINT(bugprone-empty-catch): the run is to end, no more
        }
        taken = Clock::now() - begin;
        processorSeconds = static_cast<double>(std::clock() - processorBegin) / CLOCKS_PER_SEC;
        clearProgress();
    }

    Profile takeProfile() {
        const SamplingCounts counts = sampler.counts();
        if (counts.taken == 0) {
            throw InputError("no sample of process " + std::to_string(options.processId) +
                             " could be taken" + reasons(counts));
        }
        return sampler.takeProfile();
    }

    /// How well it went, in two lines.
    std::string summary() const {
        const SamplingCounts counts = sampler.counts();
        const CaptureStatistics statistics = capture.statistics();
        char cost[160];
        std::snprintf(cost, sizeof(cost),
                      "longest stop %.0f us, %llu stops; own processor time %.2f s (%.1f %%)",
                      std::chrono::duration<double, std::micro>(statistics.longestStop).count(),
                      static_cast<unsigned long long>(statistics.stopped), processorSeconds,
                      100 * processorSeconds / std::chrono::duration<double>(taken).count());
        return howItEnded() + ": " + std::to_string(counts.due) + " samples due, " +
               std::to_string(counts.taken) + " taken, " + std::to_string(counts.missed()) +
               " missed, " + std::to_string(counts.cutShort) + " cut short" + reasons(counts) +
               "\n  " + cost + '\n';
    }

 private:
    /// A Ctrl-C is noticed this soon.
    static constexpr std::chrono::milliseconds longestTick{100};

    void tick() {
        // The first call comes before the clock starts.
        const std::uint64_t number = ticks++;
        if (number == 0 || (number - 1) % ticksPerPass == 0) {
            sampler.pass();
        }
        // Not before there is a sample.
        if (sampler.end() || (interrupted && number > 0)) {
            throw EndOfRun();
        }
        showProgress();
    }

    void showProgress() {
        const auto now = Clock::now();
        auto due = nextProgress.load();
        if (!isTerminal || now < due ||
            !nextProgress.compare_exchange_strong(due, now + std::chrono::milliseconds(250))) {
            return;
        }
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - begin);
        std::fprintf(stderr, "\r\033[Ksampling: %lld of %lld s, %llu samples of %zu threads",
                     static_cast<long long>(seconds.count()),
                     static_cast<long long>(options.duration.count()),
                     static_cast<unsigned long long>(sampler.counts().taken),
                     sampler.threadCount());
        std::fflush(stderr);
    }
    void clearProgress() const {
        if (isTerminal) {
            std::fputs("\r\033[K", stderr);
        }
    }

    std::string howItEnded() const {
        std::string time =
            durationText(std::chrono::duration_cast<std::chrono::nanoseconds>(taken).count());
        switch (
            sampler.end().value_or(interrupted ? SamplingEnd::interrupted : SamplingEnd::onTime)) {
            case SamplingEnd::interrupted:
                return "interrupted after " + time;
            case SamplingEnd::processEnded:
                return "the process ended after " + time;
            case SamplingEnd::threadEnded:
                return "the thread ended after " + time;
            case SamplingEnd::onTime:
                break;
        }
        return time;
    }

    static std::string reason(LookResult result, unsigned int tracer) {
        switch (result) {
            case LookResult::Traced:
                return "was being traced by process " + std::to_string(tracer);
            case LookResult::NotPermitted:
                return "could not be looked at any more";
            case LookResult::Unanswered:
                return "did not stop";
            case LookResult::NoSuchThread:
                return "had ended";
            default:
                return "had no frames";
        }
    }

    static std::string reasons(const SamplingCounts& counts) {
        std::map<std::string, std::uint64_t> timesByWords;
        for (const auto& [result, count] : counts.failed) {
            timesByWords[reason(result, counts.tracer)] += count;
        }
        std::string text;
        for (const auto& [words, times] : timesByWords) {
            text += "; " + std::to_string(times) + " times a thread " + words;
        }
        return text;
    }

    const SampleOptions& options;
    ProcessCapture capture{options.processId};
    ProcessSampler sampler;
    std::uint64_t ticksPerPass;
    bool isTerminal;
    std::atomic<std::uint64_t> ticks = 0;
    std::atomic<Clock::time_point> nextProgress{Clock::time_point()};
    Clock::time_point begin;
    Clock::duration taken{};
    double processorSeconds = 0;
};

bool isText(const std::filesystem::path& output) {
    return output.empty() || output == "-" || output.extension() == ".txt" ||
           output.extension() == ".json";
}

std::string textOf(const Profile& profile, const FrameTable& frames, const Symbols& symbols,
                   const std::filesystem::path& output) {
    if (output.extension() == ".json") {
        return profileJson(profile, frames, symbols) + symbolsJson(frames, symbols);
    }
    return profileText(profile, frames, symbols, Terminal::ofOutput(), false);
}

int writeText(const SampleOptions& options, const Document& document, OutputFile& output) {
    if (options.output.extension() == ".txt") {
        output.stream() << profileFormat(document.profiles.front(), document.frames);
        output.commit();
        return exitComplete;
    }
    Symbols symbols(options.symbols);
    symbols.resolve(document.frames);
    output.stream() << textOf(document.profiles.front(), document.frames, symbols, options.output);
    output.commit();
    std::cerr << "thread-utilities: " << symbols.summary();
    return symbols.isComplete() ? exitComplete : exitPartial;
}

}  // namespace

int runSample(const SampleOptions& given) {
    SampleOptions options = given;
    const Format* const format = findFormat("", options.output);
    if (format == nullptr && !isText(options.output)) {
        throw InputError(options.output.string() +
                         ": which format? A file that ends in .html, .txt, .json, .pb.gz, .folded, "
                         ".speedscope.json or .firefox.json");
    }
    Document document;
    Run run(options, document.frames);
    // Before the samples are taken: they are lost where they cannot be written.
    OutputFile output(options.output.empty() ? "-" : options.output);
    options.symbols.mappedFiles = mappedFiles(options.processId);
    endRunByCtrlC();
    run.run();
    document.profiles.push_back(run.takeProfile());
    int status = exitComplete;
    if (format == nullptr) {
        status = writeText(options, document, output);
    } else {
        const std::string name = printable(processName(options.processId));
        Source source(std::move(document),
                      (name.empty() ? "process" : name) + ' ' + std::to_string(options.processId),
                      options.symbols);
        format->write(source, output.stream());
        output.commit();
        status = source.finish();
    }
    std::cerr << "thread-utilities: " << run.summary();
    return status;
}

}  // namespace ThreadUtilities::companion
