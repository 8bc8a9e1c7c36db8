// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "read/report_text.h"

namespace ThreadUtilities::companion {
namespace {

/// `name (file:line)`; what is not known is left out.
std::string placeText(const SourcePlace& place, std::string_view module, NameSource source,
                      const Terminal& terminal) {
    std::string where =
        place.file.empty()
            ? std::string(module)
            : std::string(place.file) + (place.line > 0 ? ':' + std::to_string(place.line) : "");
    if (source == NameSource::dynamicSymbols) {
        where += ", dynamic symbol";
    }
    const std::string_view name = place.function.empty() ? "(unknown)" : place.function;
    return styled(terminal, Style::strong, printable(name)) + " (" +
           styled(terminal, Style::faint, printable(where)) + ')';
}

std::vector<std::string> frameLines(FrameId frame, const FrameTable& frames, const Symbols& symbols,
                                    const Terminal& terminal) {
    const FrameName& name = symbols.name(frame);
    std::vector<std::string> lines;
    for (const SourcePlace& place : name.places) {
        lines.push_back(placeText(place, frames.moduleOf(frame).fileName, name.source, terminal));
        if (lines.size() < name.places.size()) {
            lines.back() += " (inlined)";
        }
    }
    if (lines.empty()) {
        // Whole, so that another machine's symbols can still be asked.
        lines.push_back(frame == FrameTable::unknown ? "(in no module)"
                                                     : printable(frames.text(frame)));
    }
    return lines;
}

void appendFrames(std::string& text, const std::vector<FrameId>& stack, const FrameTable& frames,
                  const Symbols& symbols, const Terminal& terminal) {
    for (const FrameId frame : stack) {
        for (const std::string& line : frameLines(frame, frames, symbols, terminal)) {
            text += "    " + line + '\n';
        }
    }
}

bool isBlank(std::string_view text) {
    return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

}  // namespace

std::string namesText(const ThreadReport& report, const std::vector<std::size_t>& threads) {
    struct Numbered {
        std::string before;
        std::uint64_t first = 0;
        std::uint64_t last = 0;
        std::size_t count = 1;
        bool hasNumber = false;
    };
    std::vector<std::pair<std::string, std::uint64_t>> keys;
    std::vector<Numbered> groups;
    for (const std::size_t index : threads) {
        const ThreadStack& thread = report.threads[index];
        const std::string name = thread.name.empty() ? "(no name)" : printable(thread.name);
        Numbered entry{name};
        const std::size_t digits = name.find_last_not_of("0123456789") + 1;
        // A number with a leading zero is told from one without.
        if (digits < name.size() && (name[digits] != '0' || digits + 1 == name.size())) {
            const auto result =
                std::from_chars(name.data() + digits, name.data() + name.size(), entry.first);
            if (result.ec == std::errc()) {
                entry.before = name.substr(0, digits);
                entry.last = entry.first;
                entry.hasNumber = true;
            }
        }
        groups.push_back(std::move(entry));
    }
    std::sort(groups.begin(), groups.end(), [](const Numbered& left, const Numbered& right) {
        return left.before != right.before ? left.before < right.before : left.first < right.first;
    });
    std::vector<Numbered> merged;
    for (Numbered& entry : groups) {
        Numbered* const last = merged.empty() ? nullptr : &merged.back();
        const bool isSame =
            last != nullptr && last->before == entry.before && last->hasNumber == entry.hasNumber;
        if (isSame && entry.hasNumber && entry.first == last->last + 1 &&
            last->count == last->last - last->first + 1) {
            last->last = entry.last;
            ++last->count;
        } else if (isSame && entry.first == last->first && last->first == last->last) {
            ++last->count;
        } else {
            merged.push_back(std::move(entry));
        }
    }
    std::string text;
    for (const Numbered& entry : merged) {
        text += text.empty() ? "" : ", ";
        const auto numbered = [&](std::uint64_t number) {
            return entry.before + (entry.hasNumber ? std::to_string(number) : "");
        };
        text += numbered(entry.first);
        if (entry.last > entry.first) {
            text += (entry.last == entry.first + 1 ? ", " : " to ") + numbered(entry.last);
        } else if (entry.count > 1) {
            text += " (" + std::to_string(entry.count) + " times)";
        }
    }
    return text;
}

std::string threadsText(const ThreadReport& report, const FrameTable& frames,
                        const Symbols& symbols, const Terminal& terminal,
                        const ThreadNotes& notes) {
    std::map<std::vector<FrameId>, std::vector<std::size_t>> byStack;
    for (std::size_t index = 0; index < report.threads.size(); ++index) {
        byStack[report.threads[index].frames].push_back(index);
    }
    std::vector<const std::vector<std::size_t>*> groups;
    groups.reserve(byStack.size());
    for (const auto& [stack, threads] : byStack) {
        groups.push_back(&threads);
    }
    std::sort(groups.begin(), groups.end(), [](const auto* left, const auto* right) {
        return left->size() != right->size() ? left->size() > right->size()
                                             : left->front() < right->front();
    });
    std::string text;
    for (const std::vector<std::size_t>* const threads : groups) {
        const ThreadStack& first = report.threads[threads->front()];
        std::string head = threads->size() == 1 ? "Thread " + first.id
                                                : std::to_string(threads->size()) + " threads";
        head += ": " + namesText(report, *threads);
        text += styled(terminal, Style::strong, head) + '\n';
        if (threads->size() > 1) {
            std::string ids;
            for (const std::size_t index : *threads) {
                ids += (ids.empty() ? "" : ", ") + report.threads[index].id;
            }
            text += "  " + styled(terminal, Style::faint, "(" + ids + ")") + '\n';
        }
        for (const std::string& note : notes ? notes(*threads) : std::vector<std::string>()) {
            text += note + '\n';
        }
        appendFrames(text, first.frames, frames, symbols, terminal);
        text += '\n';
    }
    return text;
}

std::string stackText(const StackText& stack, const FrameTable& frames, const Symbols& symbols,
                      const Terminal& terminal) {
    if (stack.frames.size() == 1) {
        std::string text = stack.before;
        const auto lines = frameLines(stack.frames[0], frames, symbols, terminal);
        for (std::size_t index = 0; index < lines.size(); ++index) {
            text += (index > 0 ? " in " : "") + lines[index];
        }
        return text + stack.after;
    }
    std::string text = stack.before;
    if (!text.empty()) {
        text += '\n';
    }
    appendFrames(text, stack.frames, frames, symbols, terminal);
    if (!isBlank(stack.after)) {
        text += stack.after;
    }
    return text;
}

}  // namespace ThreadUtilities::companion
