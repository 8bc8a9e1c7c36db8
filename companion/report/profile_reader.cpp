// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "report/profile_reader.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "report/line_text.h"

namespace ThreadUtilities::companion {
namespace {

constexpr std::string_view totalMark = "Total sample count: ";
constexpr std::string_view iterationMark = "Iteration count: ";
constexpr std::string_view parallelismMark = "Parallelism: ";
/// Spaces before a frame nearest to its thread's start.
constexpr std::size_t outermostDepth = 2;
/// How far the rest of a thread is looked for behind what does not belong to it: behind a name with
/// line ends, or where another program wrote into the same text.
constexpr std::size_t linesAhead = 64;
/// No process gives more. Sums of this many are exact everywhere, in a double too.
constexpr std::uint64_t mostSamples = std::uint64_t{1} << 53;

std::optional<std::uint64_t> parseMarked(std::string_view line, std::string_view mark) {
    line = withoutLineEnd(line);
    if (!takeText(line, mark)) {
        return std::nullopt;
    }
    const auto number = takeNumber(line);
    return line.empty() ? number : std::nullopt;
}

/// Takes `Thread ID [COUNT]: ` off the line.
std::optional<std::pair<std::uint64_t, std::uint64_t>> takeThreadHead(std::string_view& line) {
    std::string_view rest = line;
    if (!takeText(rest, "Thread ")) {
        return std::nullopt;
    }
    const auto id = takeNumber(rest);
    if (!id || !takeText(rest, " ")) {
        return std::nullopt;
    }
    const auto count = takeCount(rest);
    if (!count) {
        return std::nullopt;
    }
    line = rest;
    return std::pair(*id, *count);
}

bool isThreadHead(std::string_view line) {
    return takeThreadHead(line).has_value();
}

}  // namespace

void ProfileReader::complain(std::size_t line, std::string what, bool isCutOff) {
    sink.onComplaint({line, std::move(what), isCutOff});
}

std::optional<std::size_t> ProfileReader::findBeginning() {
    const std::string_view line = lines.peek();
    const std::size_t mark = line.find(totalMark);
    if (mark == std::string_view::npos || !parseMarked(line.substr(mark), totalMark)) {
        return std::nullopt;
    }
    const std::size_t next = parseMarked(lines.peek(1), iterationMark) ? 2 : 1;
    if (!parseMarked(lines.peek(next), parallelismMark)) {
        return std::nullopt;
    }
    return mark;
}

Profile ProfileReader::read() {
    Profile profile;
    readHeader(profile);
    while (isThreadHead(lines.peek())) {
        readThread(profile);
    }
    std::uint64_t sum = 0;
    for (const ThreadProfile& thread : profile.threads) {
        sum += thread.samples;
    }
    // A profile of a process that has ended meanwhile has a head alone.
    if (sum != profile.totalSamples && !profile.threads.empty()) {
        complain(profile.line, "the threads have " + std::to_string(sum) + " samples, not the " +
                                   std::to_string(profile.totalSamples) + " of the total");
    }
    return profile;
}

void ProfileReader::readHeader(Profile& profile) {
    profile.line = lines.number();
    const std::string_view first = lines.peek();
    profile.totalSamples = *parseMarked(first.substr(first.find(totalMark)), totalMark);
    lines.advance();
    profile.iterations = parseMarked(lines.peek(), iterationMark);
    lines.advance(profile.iterations ? 1 : 0);
    profile.parallelism = *parseMarked(lines.peek(), parallelismMark);
    lines.advance();
    if (lines.peek().empty()) {
        complain(lines.number(), "the input ends in a profile's head", true);
    } else if (withoutLineEnd(lines.peek()).empty()) {
        lines.advance();
    } else {
        complain(lines.number(), "the empty line behind a profile's head is missing");
    }
}

void ProfileReader::readThread(Profile& profile) {
    std::string_view head = withoutLineEnd(lines.peek());
    const auto [id, samples] = *takeThreadHead(head);
    if (samples > mostSamples - samplesRead) {
        throw InputError("line " + std::to_string(lines.number()) + ": more than " +
                         std::to_string(mostSamples) + " samples");
    }
    samplesRead += samples;
    ThreadProfile& thread = profile.threads.emplace_back();
    thread.id = id;
    thread.samples = samples;
    thread.name = head;
    lines.advance();
    readName(thread);
    readFrames(thread);
}

/// A name with line ends goes on until the first frame; without any frame, until the first empty
/// line.
void ProfileReader::readName(ThreadProfile& thread) {
    std::size_t nameLines = 0;
    bool isEndKnown = false;
    for (std::size_t ahead = 0; ahead < linesAhead; ++ahead) {
        const std::string_view line = lines.peek(ahead);
        const auto frame = parseFrameLine(withoutLineEnd(line));
        if (frame && frame->depth == outermostDepth) {
            nameLines = ahead;
            isEndKnown = true;
            break;
        }
        if (line.empty() || isThreadHead(line)) {
            break;
        }
        if (withoutLineEnd(line).empty() && !isEndKnown) {
            nameLines = ahead;
            isEndKnown = true;
            if (isThreadHead(lines.peek(ahead + 1)) || lines.peek(ahead + 1).empty()) {
                break;
            }
        }
    }
    for (; nameLines > 0; --nameLines) {
        thread.name += '\n';
        thread.name += withoutLineEnd(lines.peek());
        lines.advance();
    }
}

std::optional<ProfileReader::FrameLine> ProfileReader::parseFrameLine(std::string_view line) {
    const std::size_t depth = std::min(line.find_first_not_of(' '), line.size());
    line.remove_prefix(depth);
    const auto count = depth < outermostDepth ? std::nullopt : takeCount(line);
    // A frame in no module has no text.
    if (!count || (!line.empty() && !parseFrame(line))) {
        return std::nullopt;
    }
    return FrameLine{depth, *count, line};
}

void ProfileReader::readFrames(ThreadProfile& thread) {
    open.clear();
    outermost.clear();
    for (;;) {
        const std::string_view whole = lines.peek();
        const std::string_view line = withoutLineEnd(whole);
        if (whole.empty()) {
            complain(lines.number(), "the input ends in the middle of a thread", true);
            break;
        }
        if (line.empty()) {
            const std::size_t number = lines.number();
            lines.advance();
            const auto next = parseFrameLine(withoutLineEnd(lines.peek()));
            if (!next || next->depth != outermostDepth) {
                break;
            }
            // No thread's calls go on behind one; what was read belongs to the name as well.
            complain(number, "an empty line inside of a thread, taken for a part of its name");
            continue;
        }
        const auto frame = parseFrameLine(line);
        if (frame && readFrame(thread, *frame)) {
            lines.advance();
        } else if (!passForeignLine()) {
            break;
        }
    }
    closeThread(thread);
}

/// False where no such frame can stand here.
bool ProfileReader::readFrame(ThreadProfile& thread, const FrameLine& line) {
    const std::size_t level = line.depth - outermostDepth;
    if (level > open.size()) {
        return false;
    }
    FrameId id = FrameTable::unknown;
    if (!line.text.empty()) {
        const auto known = frames.intern(*parseFrame(line.text));
        if (!known) {
            return false;
        }
        id = *known;
    }
    if (thread.nodes.size() >= std::numeric_limits<std::uint32_t>::max()) {
        throw InputError("line " + std::to_string(lines.number()) +
                         ": a thread with more than 4,294,967,295 calls");
    }
    const auto index = static_cast<std::uint32_t>(thread.nodes.size());
    for (; open.size() > level; open.pop_back()) {
        thread.nodes[open.back().index].end = index;
    }
    std::uint64_t count = line.count;
    if (level == 0) {
        outermost.push_back({index, lines.number()});
    } else if (OpenNode& parent = open.back(); count > parent.left) {
        // Said once: what stands below a cut count is cut as well.
        if (parent.left > 0 || thread.nodes[parent.index].count > 0) {
            complain(lines.number(), std::to_string(count) + " samples where the caller has only " +
                                         std::to_string(parent.left) + " left: taken for as many");
        }
        count = parent.left;
        parent.left = 0;
    } else {
        parent.left -= count;
    }
    thread.nodes.push_back({id, index + 1, count});
    open.push_back({index, count});
    return true;
}

/// A line inside of a thread that is none of its own. False where the thread has ended before it.
bool ProfileReader::passForeignLine() {
    const std::size_t number = lines.number();
    if (isThreadHead(lines.peek()) || findBeginning()) {
        complain(number, "the empty line at a thread's end is missing");
        return false;
    }
    for (std::size_t ahead = 1; ahead < linesAhead; ++ahead) {
        const std::string_view line = lines.peek(ahead);
        if (line.empty() || isThreadHead(line)) {
            break;
        }
        const auto frame = parseFrameLine(withoutLineEnd(line));
        if (frame && frame->depth - outermostDepth <= open.size()) {
            complain(number, "this line inside of a thread's calls is none of them: passed on");
            sink.onText(lines.peek());
            lines.advance();
            return true;
        }
    }
    complain(number, "a thread's calls end without an empty line", true);
    return false;
}

void ProfileReader::closeThread(ThreadProfile& thread) {
    const auto size = static_cast<std::uint32_t>(thread.nodes.size());
    for (const OpenNode& node : open) {
        thread.nodes[node.index].end = size;
    }
    std::uint64_t left = thread.samples;
    std::size_t fitting = outermost.size();
    while (fitting > 0 && thread.nodes[outermost[fitting - 1].index].count <= left) {
        --fitting;
        left -= thread.nodes[outermost[fitting].index].count;
    }
    if (fitting > 0) {
        moveFramesToName(thread, fitting);
    }
    thread.nodes.shrink_to_fit();
}

/// The name's own lines may look like frames. They come first, and they are told from the thread's
/// frames by the samples, which are too many with them.
void ProfileReader::moveFramesToName(ThreadProfile& thread, std::size_t outermostCount) {
    complain(outermost.front().line,
             "more samples than the thread has: what stands above line " +
                 (outermostCount < outermost.size() ? std::to_string(outermost[outermostCount].line)
                                                    : std::to_string(lines.number())) +
                 " is taken for a part of the thread's name");
    const std::uint32_t end = outermostCount < outermost.size()
                                  ? outermost[outermostCount].index
                                  : static_cast<std::uint32_t>(thread.nodes.size());
    std::vector<std::uint32_t> ends;
    for (std::uint32_t index = 0; index < end; ++index) {
        const ProfileNode& node = thread.nodes[index];
        while (!ends.empty() && ends.back() <= index) {
            ends.pop_back();
        }
        thread.name += '\n' + std::string(ends.size() + outermostDepth, ' ') + '[' +
                       std::to_string(node.count) + "]: " + frames.text(node.frame);
        ends.push_back(node.end);
    }
    thread.nodes.erase(thread.nodes.begin(), thread.nodes.begin() + end);
    for (ProfileNode& node : thread.nodes) {
        node.end -= end;
    }
}

}  // namespace ThreadUtilities::companion
