// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <map>
#include <optional>
#include <vector>

#include "platform/thread_context.h"

namespace ThreadUtilities::scripted {

/// How visits to one thread go: the visitor is shown each context in turn, and then the visit ends
/// with `result`.
struct VisitScript {
    std::vector<platform::ThreadContext> contexts;
    platform::VisitResult result = platform::VisitResult::Visited;
    std::optional<platform::ThreadRuns> atRest = std::nullopt;
};

/// By thread; those that are not here do not exist.
inline std::map<unsigned int, VisitScript> visitScripts;
inline int visits = 0;
inline platform::VisitDeadline lastDeadline;

}  // namespace ThreadUtilities::scripted
