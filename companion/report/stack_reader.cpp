// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "report/stack_reader.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "report/line_text.h"

namespace ThreadUtilities::companion {
namespace {

/// A thread's name with more line ends than this is not found again.
constexpr std::size_t linesAhead = 64;
/// What can stand before a module's name in a log.
constexpr std::string_view beforeNames = " \t\"'`([]<|=:,>";

/// The number of `[NUMBER][` at the front.
std::optional<std::string_view> threadIdAtFront(std::string_view text) {
    if (!takeText(text, "[")) {
        return std::nullopt;
    }
    const std::string_view digits = text;
    if (!takeNumber(text) || !text.starts_with("][")) {
        return std::nullopt;
    }
    return digits.substr(0, digits.size() - text.size());
}

/// Where `[NUMBER][` first stands in the line.
std::optional<std::size_t> findThreadId(std::string_view line) {
    for (std::size_t at = line.find('['); at != std::string_view::npos;
         at = line.find('[', at + 1)) {
        if (threadIdAtFront(line.substr(at))) {
            return at;
        }
    }
    return std::nullopt;
}

}  // namespace

/// Frames up to the end of the line whose first stands right behind a `]`: where that bracket is. A
/// name may hold texts like frames and brackets as well, so it is the last bracket before frames
/// that no bracket interrupts.
std::optional<std::size_t> StackReader::framesAtEnd(std::string_view line,
                                                    std::vector<FrameId>& found) {
    if (!line.ends_with("};")) {
        return std::nullopt;
    }
    std::vector<FramePieces> pieces;
    std::optional<std::size_t> bracket;
    std::size_t from = 0;
    while (const auto tail = findFrameTail(line, from)) {
        std::string_view name = line.substr(from, tail->begin - from);
        const std::size_t last = name.rfind(']');
        if (last != std::string_view::npos && last + 1 < name.size()) {
            bracket = from + last;
            name.remove_prefix(last + 1);
            pieces.clear();
        }
        if (name.empty()) {
            bracket.reset();
        }
        pieces.push_back({name, tail->guid, tail->offset});
        from = tail->end;
    }
    if (from != line.size() || !bracket) {
        return std::nullopt;
    }
    for (const FramePieces& piece : pieces) {
        found.push_back(frames.intern(piece).value_or(FrameTable::unknown));
    }
    return bracket;
}

std::optional<StackReader::ThreadLine> StackReader::findThread(bool mayHavePrefix) {
    ThreadLine result;
    {
        const std::string_view line = withoutLineEnd(lines.peek());
        const auto begin = threadIdAtFront(line)
                               ? std::optional<std::size_t>(0)
                               : (mayHavePrefix ? findThreadId(line) : std::nullopt);
        if (!begin) {
            return std::nullopt;
        }
        const std::string_view id = *threadIdAtFront(line.substr(*begin));
        result.prefixLength = *begin;
        result.thread.id = id;
        const std::size_t nameBegin = *begin + id.size() + 3;
        const auto bracket = framesAtEnd(line, result.thread.frames);
        if (bracket && *bracket >= nameBegin) {
            result.thread.name = line.substr(nameBegin, *bracket - nameBegin);
            return result;
        }
        // Only a line that is nothing else may begin a name with line ends.
        if (*begin != 0) {
            return std::nullopt;
        }
        result.thread.name = line.substr(nameBegin);
    }
    for (; result.lineCount < linesAhead; ++result.lineCount) {
        const std::string_view whole = lines.peek(result.lineCount);
        const std::string_view line = withoutLineEnd(whole);
        if (whole.empty() || threadIdAtFront(line)) {
            return std::nullopt;
        }
        result.thread.frames.clear();
        result.thread.name += '\n';
        if (const auto bracket = framesAtEnd(line, result.thread.frames)) {
            result.thread.name += line.substr(0, *bracket);
            ++result.lineCount;
            return result;
        }
        result.thread.name += line;
    }
    return std::nullopt;
}

bool StackReader::read() {
    ThreadReport report;
    report.line = lines.number();
    while (auto found = findThread(report.threads.empty())) {
        if (found->prefixLength > 0) {
            sink.onText(std::string(lines.peek().substr(0, found->prefixLength)) + '\n');
        }
        lines.advance(found->lineCount);
        report.threads.push_back(std::move(found->thread));
    }
    if (!report.threads.empty()) {
        sink.onThreads(std::move(report));
        return true;
    }
    return readStacks();
}

bool StackReader::readStacks() {
    const std::string_view line = lines.peek();
    StackText stack;
    stack.line = lines.number();
    std::size_t done = 0;
    std::size_t stackCount = 0;
    for (auto tail = findFrameTail(line, 0); tail; tail = findFrameTail(line, tail->end)) {
        // Frames of one stack follow each other at once; the first one begins where a log's own
        // words end.
        std::string_view name = line.substr(done, tail->begin - done);
        const bool isNext = !stack.frames.empty() && !name.empty() &&
                            beforeNames.find(name.front()) == std::string_view::npos;
        if (!isNext) {
            const std::size_t last = name.find_last_of(beforeNames);
            const std::size_t nameBegin = last == std::string_view::npos ? 0 : last + 1;
            if (nameBegin == name.size()) {
                continue;  // no name: the log's own words
            }
            if (!stack.frames.empty()) {
                sink.onStack(std::exchange(stack, {stack.line, {}, {}, {}}));
            }
            stack.before = name.substr(0, nameBegin);
            name.remove_prefix(nameBegin);
            ++stackCount;
        }
        stack.frames.push_back(
            frames.intern({name, tail->guid, tail->offset}).value_or(FrameTable::unknown));
        done = tail->end;
    }
    if (stackCount == 0) {
        return false;
    }
    stack.after = line.substr(done);
    sink.onStack(std::move(stack));
    lines.advance();
    return true;
}

}  // namespace ThreadUtilities::companion
