// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Reports as text for a person.

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "report/report.h"
#include "support/terminal.h"
#include "symbols/symbols.h"
#include "tree/function_tree.h"

namespace ThreadUtilities::companion {

/// The trees of all threads, and the heaviest functions. Calls below a hundredth of their thread's
/// samples are left out, and counted, unless `all`.
std::string profileText(const Profile& profile, const FrameTable& frames, const Symbols& symbols,
                        const Terminal& terminal, bool all);

/// Lines to stand above the stack that threads have in common; they are indices.
using ThreadNotes = std::function<std::vector<std::string>(const std::vector<std::size_t>&)>;

/// Threads with equal stacks together, the commonest stack first.
std::string threadsText(const ThreadReport& report, const FrameTable& frames,
                        const Symbols& symbols, const Terminal& terminal,
                        const ThreadNotes& notes = {});

/// A single frame stays in its line; the frames of a stack get lines of their own.
std::string stackText(const StackText& stack, const FrameTable& frames, const Symbols& symbols,
                      const Terminal& terminal);

/// `worker 1 to worker 12, main`: names that differ in a number at the end are put together.
std::string namesText(const ThreadReport& report, const std::vector<std::size_t>& threads);

/// One line of JSON each.
std::string profileJson(const Profile& profile, const FrameTable& frames, const Symbols& symbols);
std::string threadsJson(const ThreadReport& report, const FrameTable& frames,
                        const Symbols& symbols);
std::string stackJson(const StackText& stack, const FrameTable& frames, const Symbols& symbols);
/// What became of each module.
std::string symbolsJson(const FrameTable& frames, const Symbols& symbols);
std::string textJson(std::string_view text);

}  // namespace ThreadUtilities::companion
