// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stacks/picture.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "read/report_text.h"
#include "support/hex_text.h"

namespace ThreadUtilities::companion {
namespace {

constexpr std::size_t mostWaitLines = 8;

Knot knotOfCycle(const Cycle& cycle, const std::vector<SeenThread>& threads, const Target& target) {
    Knot knot{"", cycle, true, false};
    bool isTimed = false;
    std::string chain = target.label(threads[cycle.front()].thread.id);
    for (std::size_t step = 0; step < cycle.size(); ++step) {
        const Wait& wait = threads[cycle[step]].wait;
        knot.isGuess = knot.isGuess || wait.isGuess;
        isTimed = isTimed || wait.isTimed;
        chain += " waits for " + (cycle.size() == 1 ? "itself" : target.label(wait.holder));
    }
    knot.heading = std::string(knot.isGuess ? "perhaps a deadlock" : "deadlock") +
                   (isTimed ? " for a limited time: " : ": ") + chain;
    return knot;
}

std::string waitLine(const std::string& words, const Terminal& terminal) {
    return "  " + styled(terminal, Style::strong, words);
}

/// Their words; where those differ, each with the threads that it is said of, the commonest first.
std::vector<std::string> waitLines(const std::vector<SeenThread>& seen, const ThreadReport& report,
                                   const std::vector<std::size_t>& threads,
                                   const Terminal& terminal) {
    std::map<std::string, std::vector<std::size_t>> byWords;
    for (const std::size_t thread : threads) {
        byWords[seen[thread].wait.text()].push_back(thread);
    }
    if (byWords.size() == 1) {
        return {waitLine(byWords.begin()->first, terminal)};
    }
    std::vector<const std::pair<const std::string, std::vector<std::size_t>>*> ordered;
    ordered.reserve(byWords.size());
    for (const auto& entry : byWords) {
        ordered.push_back(&entry);
    }
    std::sort(ordered.begin(), ordered.end(), [](const auto* left, const auto* right) {
        return left->second.size() != right->second.size()
                   ? left->second.size() > right->second.size()
                   : left->second.front() < right->second.front();
    });
    std::vector<std::string> lines;
    for (const auto* entry : ordered) {
        if (lines.size() == mostWaitLines) {
            lines.push_back("  and " + std::to_string(ordered.size() - mostWaitLines) +
                            " other waits");
            break;
        }
        lines.push_back(waitLine(namesText(report, entry->second) + ": " + entry->first, terminal));
    }
    return lines;
}

std::string groupsText(const std::vector<SeenThread>& all, const std::vector<std::size_t>& chosen,
                       const FrameTable& frames, const Symbols& symbols, const Terminal& terminal) {
    std::vector<SeenThread> seen;
    seen.reserve(chosen.size());
    for (const std::size_t index : chosen) {
        seen.push_back(all[index]);
    }
    const ThreadReport report = reportOf(seen);
    return threadsText(report, frames, symbols, terminal,
                       [&](const std::vector<std::size_t>& threads) {
                           return waitLines(seen, report, threads, terminal);
                       });
}

}  // namespace

std::vector<Knot> findKnots(const std::vector<SeenThread>& threads, const Target& target) {
    std::vector<Knot> knots;
    for (const Cycle& cycle : findCycles(threads)) {
        knots.push_back(knotOfCycle(cycle, threads, target));
    }
    std::map<std::uint64_t, std::vector<std::size_t>> byAbandonedLock;
    for (std::size_t index = 0; index < threads.size(); ++index) {
        if (threads[index].wait.holderKind == HolderKind::ended) {
            byAbandonedLock[threads[index].wait.address].push_back(index);
        }
    }
    const ThreadReport report = reportOf(threads);
    for (const auto& [address, waiters] : byAbandonedLock) {
        const Wait& wait = threads[waiters.front()].wait;
        knots.push_back({(wait.isGuess ? "perhaps abandoned: " : "abandoned: ") +
                             namesText(report, waiters) + ' ' + wait.words + wait.holderWords,
                         waiters, false, wait.isGuess});
    }
    return knots;
}

std::string pictureText(const std::vector<SeenThread>& threads, const std::vector<Knot>& knots,
                        const FrameTable& frames, const Symbols& symbols,
                        const Terminal& terminal) {
    std::string text;
    std::vector<std::size_t> rest;
    std::set<std::size_t> shown;
    for (const Knot& knot : knots) {
        text += styled(terminal, Style::hot, knot.heading) + '\n' +
                groupsText(threads, knot.threads, frames, symbols, terminal);
        shown.insert(knot.threads.begin(), knot.threads.end());
    }
    for (std::size_t index = 0; index < threads.size(); ++index) {
        if (!shown.contains(index)) {
            rest.push_back(index);
        }
    }
    return text + groupsText(threads, rest, frames, symbols, terminal);
}

std::string pictureJson(const std::vector<SeenThread>& threads, const std::vector<Knot>& knots,
                        const FrameTable& frames, const Symbols& symbols) {
    using Json = nlohmann::ordered_json;
    const auto lineOf = [](const Json& value) {
        return value.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
    };
    std::string text = threadsJson(reportOf(threads), frames, symbols);
    for (const Knot& knot : knots) {
        Json ids = Json::array();
        for (const std::size_t index : knot.threads) {
            ids.push_back(std::to_string(threads[index].thread.id));
        }
        text += lineOf({{"type", knot.isCycle ? "deadlock" : "abandoned"},
                        {"text", knot.heading},
                        {"guess", knot.isGuess},
                        {"threads", ids}});
    }
    for (const SeenThread& seen : threads) {
        const Wait& wait = seen.wait;
        Json line{{"type", "wait"},        {"id", std::to_string(seen.thread.id)},
                  {"kind", wait.kind},     {"text", wait.text()},
                  {"guess", wait.isGuess}, {"atRest", seen.isAtRest}};
        if (wait.address != 0) {
            line["address"] = hexText(wait.address);
        }
        if (wait.holderKind != HolderKind::none) {
            line["holder"] = std::to_string(wait.holder);
            line["holderEnded"] = wait.holderKind == HolderKind::ended;
        }
        text += lineOf(line);
    }
    return text;
}

}  // namespace ThreadUtilities::companion
