// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "convert/source.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "support/complaints.h"

namespace ThreadUtilities::companion {
namespace {

/// The frames stand innermost first.
void addStack(ThreadProfile& thread, const std::vector<FrameId>& frames) {
    ++thread.samples;
    const std::size_t end = thread.nodes.size() + frames.size();
    for (auto frame = frames.rbegin(); frame != frames.rend(); ++frame) {
        thread.nodes.push_back({*frame, static_cast<std::uint32_t>(end), 1});
    }
}

/// Empties the document's profiles: they may be large.
std::vector<ThreadProfile> takeThreads(Document& document) {
    std::vector<ThreadProfile> threads;
    const bool isProfile = !document.profiles.empty();
    const bool isOne = document.profiles.size() == 1;
    for (std::size_t number = 0; number < document.profiles.size(); ++number) {
        for (ThreadProfile& thread : document.profiles[number].threads) {
            threads.push_back(std::move(thread));
            if (!isOne) {
                std::string& name = threads.back().name;
                name = threadLabel(threads.back()) + " in profile " + std::to_string(number + 1);
            }
        }
    }
    if (isProfile) {
        document.profiles.clear();
        return threads;
    }
    for (const ThreadReport& report : document.threadReports) {
        for (const ThreadStack& stack : report.threads) {
            ThreadProfile& thread = threads.emplace_back();
            std::from_chars(stack.id.data(), stack.id.data() + stack.id.size(), thread.id);
            thread.name = stack.name;
            addStack(thread, stack.frames);
        }
    }
    if (!document.stacks.empty()) {
        ThreadProfile& thread = threads.emplace_back();
        thread.name = "single stacks";
        for (const StackText& stack : document.stacks) {
            addStack(thread, stack.frames);
        }
    }
    return threads;
}

std::string titleOf(const std::filesystem::path& file) {
    return file.empty() || file == "-" ? "profile" : file.filename().string();
}

}  // namespace

Source::Source(const std::filesystem::path& file, const SymbolOptions& symbolOptions)
    : Source(readDocument(file), titleOf(file), symbolOptions) {}

Source::Source(Document&& wholeDocument, std::string documentTitle,
               const SymbolOptions& symbolOptions)
    : document(std::move(wholeDocument)),
      name(std::move(documentTitle)),
      leftOut(document.profiles.empty() ? 0
                                        : document.threadReports.size() + document.stacks.size()),
      threadProfiles(takeThreads(document)),
      names(symbolOptions),
      functionTable((names.resolve(document.frames), document.frames), names) {
    for (const ThreadProfile& thread : threadProfiles) {
        sampleCount += thread.samples;
    }
    ComplaintLog log(name);
    for (const Complaint& complaint : document.complaints) {
        log.write(complaint);
    }
}

int Source::finish() const {
    if (leftOut > 0) {
        std::cerr << "thread-utilities: " << name << ": only its profiles are shown; " << leftOut
                  << " other texts of stacks in it are not\n";
    }
    std::cerr << "thread-utilities: " << names.summary();
    if (names.isOfAnotherSystem()) {
        throw InputError(name + ": a report of Windows, for whose modules no symbols are here");
    }
    return names.isComplete() && document.complaints.empty() ? exitComplete : exitPartial;
}

std::string threadLabel(const ThreadProfile& thread) {
    return thread.name.empty() ? "thread " + std::to_string(thread.id) : thread.name;
}

std::vector<std::uint64_t> ownSamples(const ThreadProfile& thread) {
    const std::vector<ProfileNode>& nodes = thread.nodes;
    std::vector<std::uint64_t> own(nodes.size() + 1);
    const auto withoutChildren = [&](std::uint64_t count, std::size_t first, std::size_t end) {
        for (std::size_t child = first; child < end; child = nodes[child].end) {
            count -= std::min(count, nodes[child].count);
        }
        return count;
    };
    for (std::size_t node = 0; node < nodes.size(); ++node) {
        own[node] = withoutChildren(nodes[node].count, node + 1, nodes[node].end);
    }
    own.back() = withoutChildren(thread.samples, 0, nodes.size());
    return own;
}

}  // namespace ThreadUtilities::companion
