// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/thread_context.h"

#include <algorithm>
#include <vector>

#include "scripted_platform/thread_context_script.h"

namespace ThreadUtilities::platform {

Visit visitThreadContext(const VisitRequest& request,
                         std::span<unsigned long long> frames) noexcept {
    ++scripted::visits;
    scripted::lastDeadline = request.deadline;
    const auto found = scripted::visitScripts.find(request.threadId);
    if (found == scripted::visitScripts.end()) {
        return {VisitResult::NoSuchThread};
    }
    std::vector<unsigned long long> room(frames.size());
    std::size_t frameCount = 0;
    for (const ThreadContext& context : found->second.contexts) {
        VisitRoom forVisitor{room.data(), room.size()};
        request.visitor(context, forVisitor);
        frameCount = forVisitor.frameCount;
    }
    if (found->second.result != VisitResult::Visited) {
        return {found->second.result};
    }
    std::copy_n(room.begin(), frameCount, frames.begin());
    return {VisitResult::Visited, frameCount, found->second.atRest};
}

ReadableRange currentStackRange() noexcept {
    return {};
}

}  // namespace ThreadUtilities::platform
