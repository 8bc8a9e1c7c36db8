#pragma once

#include <vector>

#include "platform/thread_context.h"

namespace ThreadUtilities::scripted {

/// How visits to one thread go: the visitor is shown each context in turn, and then the visit ends
/// with `result`.
struct VisitScript {
    std::vector<platform::ThreadContext> contexts;
    platform::VisitResult result = platform::VisitResult::Visited;
};

/// Threads without a script do not exist.
void setVisit(unsigned int threadId, VisitScript script);

struct VisitRecord {
    unsigned int threadId;
    bool suspend;
    std::vector<platform::VisitorAnswer> answers;
};

/// The visits so far.
const std::vector<VisitRecord>& visits();

void setCurrentStackRange(const platform::ReadableRange& range);

/// Forgets scripts, visits and range.
void resetVisits();

}  // namespace ThreadUtilities::scripted
