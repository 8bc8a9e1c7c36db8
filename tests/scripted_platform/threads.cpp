// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "scripted_platform/threads_script.h"

#include <algorithm>

#include "platform/current.h"
#include "platform/thread_names.h"
#include "platform/thread_stacks.h"
#include "platform/threads.h"

namespace ThreadUtilities::platform {
namespace {

template <typename Value>
Value entry(const std::map<unsigned int, Value>& values, unsigned int id) {
    const auto found = values.find(id);
    return found == values.end() ? Value() : found->second;
}

}  // namespace

std::vector<unsigned int> enumerateThreadsFromSystemInformation(unsigned int processId) {
    ++scripted::threads.systemInformationCalls;
    return entry(scripted::threads.systemInformation, processId);
}

std::vector<unsigned int> enumerateThreadsFromSnapshot(unsigned int processId) {
    ++scripted::threads.snapshotCalls;
    return entry(scripted::threads.snapshot, processId);
}

bool noticesCover(std::size_t listed) noexcept {
    return scripted::threads.noticesCover(listed);
}

std::vector<unsigned int> liveThreads(const std::vector<unsigned int>&) {
    ++scripted::threads.liveCalls;
    return scripted::threads.live;
}

void setOwnThreadName(std::string_view name) {
    const std::lock_guard lock(scripted::threadNames.mutex);
    scripted::threadNames.byThread[currentThreadId()] = name;
}

std::string readThreadName(unsigned int threadId) {
    const std::lock_guard lock(scripted::threadNames.mutex);
    return entry(scripted::threadNames.byThread, threadId);
}

Visit visitThreadContext(const VisitRequest& request,
                         std::span<unsigned long long> frames) noexcept {
    ++scripted::visits;
    scripted::lastVisit = request;
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

RunWitness::RunWitness(unsigned int threadId, bool) noexcept : id(threadId), runsFile(0) {
    ++scripted::openWitnesses;
}

RunWitness::~RunWitness() {
    --scripted::openWitnesses;
}

std::optional<ThreadRuns> RunWitness::read() const noexcept {
    const auto found = scripted::threadRuns.find(id);
    return found == scripted::threadRuns.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::uint64_t> RunWitness::readHint() const noexcept {
    const auto runs = read();
    return runs ? std::optional(runs->time) : std::nullopt;
}

std::size_t separateOpenFiles() noexcept {
    return scripted::separateFiles;
}

}  // namespace ThreadUtilities::platform
