// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/ProcessCapture.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <iostream>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "commands.h"
#include "process/descriptors.h"
#include "process/process_frames.h"
#include "process/target.h"
#include "read/report_text.h"
#include "report/report_format.h"
#include "report/report_reader.h"
#include "stacks/picture.h"
#include "stacks/process_look.h"

namespace ThreadUtilities::companion {
namespace {

using Clock = std::chrono::steady_clock;

class Stacks {
 public:
    explicit Stacks(const StacksOptions& stacksOptions)
        : options(stacksOptions),
          target(ProcessCapture(stacksOptions.processId)),
          processFrames(stacksOptions.processId, frames),
          symbols(stacksOptions.symbols),
          terminal(Terminal::ofOutput()) {}

    int run() {
        std::vector<SeenThread> threads =
            lookAtAll(target, processFrames, options.raw ? Depth::callers : Depth::all);
        refuseIfHidden(threads);
        if (options.raw) {
            return showRaw(threads);
        }
        const auto begin = Clock::now();
        symbols.resolve(frames);
        if (Clock::now() - begin > slow) {
            // What busy threads did before their names were found is over by now.
            threads = lookAgain();
        }
        addWaits(threads, target, frames, symbols);
        show(threads);
        if (options.watch) {
            watch(threads);
        }
        std::cerr << "thread-utilities: " << symbols.summary();
        return symbols.isComplete() ? exitComplete : exitPartial;
    }

 private:
    static constexpr std::chrono::milliseconds slow{20};

    /// What would be said of each thread is said once.
    void refuseIfHidden(const std::vector<SeenThread>& threads) const {
        const std::string process = "process " + std::to_string(options.processId);
        if (threads.empty()) {
            throw InputError(process + " has ended");
        }
        const bool isHidden =
            std::all_of(threads.begin(), threads.end(), [](const SeenThread& seen) {
                return seen.frames.empty() && (seen.look.result == LookResult::Traced ||
                                               seen.look.result == LookResult::NotPermitted);
            });
        if (isHidden) {
            Descriptors none(target.procFolder());
            const SeenThread& first = threads.front();
            throw InputError(process + ' ' +
                             waitOf({target, none}, first.thread.id, first.look, {}).words);
        }
    }

    std::vector<SeenThread> lookAgain() {
        target.listThreads();
        std::vector<SeenThread> threads = lookAtAll(target, processFrames, Depth::all);
        symbols.resolve(frames);
        return threads;
    }

    int showRaw(const std::vector<SeenThread>& threads) {
        write(threadsFormat(reportOf(threads), frames));
        return exitComplete;
    }

    void show(const std::vector<SeenThread>& threads) {
        const std::vector<Knot> knots = findKnots(threads, target);
        for (const Knot& knot : knots) {
            told.insert(knot.heading);
        }
        write(options.json ? pictureJson(threads, knots, frames, symbols)
                           : pictureText(threads, knots, frames, symbols, terminal));
        if (options.json && !options.watch) {
            write(symbolsJson(frames, symbols));
        }
    }

    /// Until the process ends, or somebody ends this program.
    void watch(const std::vector<SeenThread>& first) {
        const auto begin = Clock::now();
        for (auto next = begin + *options.watch;; next += *options.watch) {
            std::this_thread::sleep_until(next);
            if (!target.listThreads()) {
                write("the process has ended\n");
                return;
            }
            const auto passed = std::chrono::duration_cast<std::chrono::seconds>(next - begin);
            tellWhoMoved(first, passed);
            tellNewKnots();
        }
    }

    void tellWhoMoved(const std::vector<SeenThread>& first, std::chrono::seconds passed) {
        std::vector<std::size_t> unmoved;
        std::vector<unsigned long long> noFrames;
        for (std::size_t index = 0; index < first.size(); ++index) {
            const SeenThread& seen = first[index];
            const ThreadLook now = target.looks().lookWithoutStop(seen.thread.id, noFrames, 1);
            const bool isAtRest =
                now.result == LookResult::Blocked || now.result == LookResult::Traced;
            if (isAtRest && now.runs == seen.look.runs) {
                unmoved.push_back(index);
            }
        }
        const std::string names = namesText(reportOf(first), unmoved);
        write("after " + std::to_string(passed.count()) + " s: " + std::to_string(unmoved.size()) +
              " of " + std::to_string(target.threads().size()) +
              " threads have not moved since the first look" + (names.empty() ? "" : ": " + names) +
              '\n');
    }

    void tellNewKnots() {
        std::vector<SeenThread> threads = lookAgain();
        addWaits(threads, target, frames, symbols);
        std::vector<Knot> news;
        for (Knot& knot : findKnots(threads, target)) {
            if (told.insert(knot.heading).second) {
                news.push_back(std::move(knot));
            }
        }
        std::vector<SeenThread> tied;
        for (Knot& knot : news) {
            for (std::size_t& index : knot.threads) {
                tied.push_back(threads[index]);
                index = tied.size() - 1;
            }
        }
        write(pictureText(tied, news, frames, symbols, terminal));
    }

    static void write(const std::string& text) {
        if (!(std::cout << text << std::flush)) {
            throw std::runtime_error("standard output cannot be written");
        }
    }

    const StacksOptions& options;
    Target target;
    FrameTable frames;
    ProcessFrames processFrames;
    Symbols symbols;
    Terminal terminal;
    /// What ties threads up is told once.
    std::set<std::string> told;
};

}  // namespace

int runStacks(const StacksOptions& options) {
    return Stacks(options).run();
}

}  // namespace ThreadUtilities::companion
