// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/look.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <system_error>
#include <vector>

#include "linux/kernel_calls.h"
#include "linux/task_texts.h"
#include "platform/memory.h"
#include "platform/run_witness.h"
#include "platform/thread_context.h"
#include "process/process_walker.h"
#include "process/stack_copy.h"
#include "process/stop_worker.h"
#include "process/thread_records.h"
#include "unwind/frame_walk.h"

namespace ThreadUtilities::process {

using platform::registerBit;
using platform::ThreadContext;
using std::chrono::steady_clock;

namespace {

constexpr auto longestLook = std::chrono::milliseconds(50);

constexpr std::uint32_t pointers = registerBit(platform::Rip) | registerBit(platform::Rsp);
constexpr std::uint32_t arguments = registerBit(platform::Rdi) | registerBit(platform::Rsi) |
                                    registerBit(platform::Rdx) | registerBit(platform::R10) |
                                    registerBit(platform::R8) | registerBit(platform::R9);

ThreadRunCount runCount(const platform::ThreadRuns& runs) {
    return {runs.count, runs.time, runs.wait};
}

// Shifted back, its words are found in `copy`.
void useCopy(ThreadContext& context, platform::ReadableRange stack, const std::byte* copy) {
    context.stack = stack;
    context.stackShift = reinterpret_cast<std::uint64_t>(copy) - stack.begin;
    context.isStopped = false;
}

}  // namespace

Look::Look(ProcessWalker& processWalker, StopWorkers& stopWorkers, ThreadRecord& threadRecord,
           unsigned int thread, std::vector<unsigned long long>& room, std::size_t most)
    : walker(processWalker),
      workers(stopWorkers),
      record(threadRecord),
      threadId(thread),
      frames(room),
      limit(most),
      deadline(steady_clock::now() + longestLook) {}

// A thread that keeps falling asleep and waking is caught at rest or running before long: each
// attempt takes some microseconds.
ThreadLook Look::make(bool mayStop) {
    if (hasNotRunSince()) {
        return look;
    }
    Stopping stopping = Stopping::TryAgain;
    while (stopping == Stopping::TryAgain && steady_clock::now() < deadline) {
        if (lookAtRest(!mayStop) != AtRest::NotSeen) {
            return look;
        }
        stopping = mayStop ? stop() : Stopping::GiveUp;
    }
    if (stopping != Stopping::Settled && lookAtRest(true) == AtRest::NotSeen) {
        settle(LookResult::Unanswered);
    }
    return look;
}

Look::AtRest Look::settle(LookResult result) {
    const ThreadRunCount runs = look.runs;
    look = ThreadLook();
    look.runs = runs;
    look.result = result;
    return AtRest::Settled;
}

// The thread was at rest between the reading that is remembered and this one. If they are equal, it
// has not run since then (platform/run_witness.h), therefore its registers and its stack, and what
// was found there, are what they were.
bool Look::hasNotRunSince() {
    const std::optional<LookAtRest>& last = record.lastAtRest;
    if (!last || (last->look.isCutShort && last->limit < limit)) {
        return false;
    }
    const auto runs = record.files->runs();
    if (!runs || runCount(*runs) != last->look.runs) {
        return false;
    }
    look = last->look;
    look.isCutShort = look.isCutShort || last->frames.size() > limit;
    look.frameCount = std::min(last->frames.size(), limit);
    frames.resize(std::max(frames.size(), look.frameCount));
    std::copy_n(last->frames.begin(), look.frameCount, frames.begin());
    return true;
}

void Look::remember() {
    constexpr std::size_t mostRemembered = 512;
    if (look.frameCount > mostRemembered) {
        record.lastAtRest.reset();
        return;
    }
    record.lastAtRest =
        LookAtRest{look,
                   {frames.begin(), frames.begin() + static_cast<std::ptrdiff_t>(look.frameCount)},
                   limit};
}

// The run count is read before the registers are and after the walk. The kernel tells registers
// only of a thread that is off the processors while it looks. If the counts are equal, the thread
// has not run since that look, therefore the registers and every word of its stack belong to one
// moment.
Look::AtRest Look::lookAtRest(bool takesPart) {
    const auto before = record.files->runs();
    const Glance glance = record.files->glance();
    if (glance.sight == Glance::Sight::Missing) {
        return settle(LookResult::NoSuchThread);
    }
    if (glance.sight == Glance::Sight::Denied) {
        return settle(LookResult::NotPermitted);
    }
    if (!before) {
        return AtRest::NotSeen;  // it has never run yet
    }
    look.runs = runCount(*before);
    if (glance.sight == Glance::Sight::OnProcessor || !walkAtRest(glance.at)) {
        return AtRest::NotSeen;
    }
    look.state = record.files->state();
    if (record.files->runs() != before) {
        return AtRest::NotSeen;
    }
    const bool needsMore = end == WalkEnd::UnknownRegister && !glance.at.isInSystemCall;
    if (needsMore && !takesPart) {
        return AtRest::NotSeen;
    }
    look.tracer = look.state == 't' ? record.files->tracer() : 0;
    if (look.tracer == static_cast<unsigned int>(platform::kernelProcessId())) {
        return AtRest::NotSeen;  // a late worker of ours is about to let it go
    }
    look.result = look.state == 't' ? LookResult::Traced : LookResult::Blocked;
    remember();
    return AtRest::Seen;
}

// Instruction and stack pointer are known, and the arguments lie in the registers that they came
// in, for the kernel changes none of these. But a call by the old interrupt has them elsewhere, and
// the file does not say which one it was; few walks need any (`vfork` keeps its return address in
// one).
bool Look::walkAtRest(const platform::BlockedAt& at) {
    constexpr std::array<unsigned char, 2> systemCall{0x0f, 0x05};
    std::array<std::byte, 8192> copy;
    ThreadContext context;
    context.registers = at.registers;
    context.knownRegisters = pointers;
    const std::uint64_t stackPointer = at.registers[platform::Rsp];
    const auto stack = copyStack(threadId, record.files->pageMap(), stackPointer, copy);
    useCopy(context, stack, copy.data());
    look.systemCall = at.isInSystemCall ? at.systemCall : -1;
    look.arguments = {at.registers[platform::Rdi], at.registers[platform::Rsi],
                      at.registers[platform::Rdx], at.registers[platform::R10],
                      at.registers[platform::R8],  at.registers[platform::R9]};
    look.instructionPointer = at.registers[platform::Rip];
    look.stackPointer = stackPointer;
    if (stack.begin == stack.end) {
        look.frameCount = 0;
        return true;
    }
    walk(context, true);
    std::array<unsigned char, 2> before{};
    if (end == WalkEnd::UnknownRegister && at.isInSystemCall &&
        walker.readMemory(look.instructionPointer - before.size(), before.data(), before.size()) ==
            before.size() &&
        before == systemCall) {
        context.knownRegisters |= arguments;
        walk(context, true);
    }
    look.isCutShort = end == WalkEnd::FrameLimit || end == WalkEnd::UnknownRegister;
    return true;
}

void Look::walk(ThreadContext& context, bool mayReadStack) {
    constexpr std::size_t usual = 256;
    constexpr std::size_t mostFrames = std::size_t{1} << 20;
    std::size_t room = std::min(limit, std::max(usual, frames.size()));
    for (;;) {
        frames.resize(std::max(frames.size(), room));
        const ProcessWalker::Result result =
            walker.walk(context, mayReadStack, frames.data(), room);
        look.frameCount = result.frameCount;
        end = result.end;
        leftCopy = result.leftCopy;
        if (end != WalkEnd::FrameLimit || room >= std::min(limit, mostFrames)) {
            return;
        }
        room = std::min(limit, room * 4);
    }
}

Look::Stopping Look::stop() {
    const Stopping stopping = makeStop();
    if (stopping == Stopping::Settled && leftCopy && look.result == LookResult::Stopped &&
        record.copySize < largestStackCopy) {
        // Another look, with as much room as there is: from now on for each look at this thread.
        record.copySize = largestStackCopy;
        return makeStop();
    }
    return stopping;
}

Look::Stopping Look::makeStop() {
    if (!record.stop || record.stop.use_count() != 1) {
        record.stop = std::make_shared<Stop>();
    }
    Stop& made = *record.stop;
    made.threadId = threadId;
    made.files = record.files;
    made.deadline = deadline;
    made.copySize = record.copySize;
    try {
        if (!workers.make(record.stop)) {
            record.stop.reset();
            return Stopping::GiveUp;
        }
    } catch (const std::system_error&) {
        return Stopping::GiveUp;  // no thread can be started
    }
    stopped = std::max(stopped, made.length);
    switch (made.outcome) {
        case Stop::Outcome::Copied:
            walkCopy(made);
            return Stopping::Settled;
        case Stop::Outcome::AtRest:
            return Stopping::TryAgain;
        case Stop::Outcome::Gone:
            settle(LookResult::NoSuchThread);
            return Stopping::Settled;
        case Stop::Outcome::Refused:
            return explainRefusal();
        case Stop::Outcome::NoAnswer:
            break;
    }
    return Stopping::GiveUp;
}

void Look::walkCopy(const Stop& made) {
    settle(LookResult::Stopped);
    look.state = 'R';
    look.instructionPointer = made.registers[platform::Rip];
    look.stackPointer = made.registers[platform::Rsp];
    ThreadContext context;
    context.registers = made.registers;
    useCopy(context, made.stack, made.copy.data());
    walk(context, false);
    look.isCutShort = leftCopy || end == WalkEnd::FrameLimit;
}

// Another capture of this process may have it just now, and a worker that has given up may not have
// ended yet. A tracer that is gone when it is asked for, or ends the seizure: once more.
Look::Stopping Look::explainRefusal() {
    constexpr auto untilLetGo = std::chrono::microseconds(50);
    const unsigned int tracer = record.files->tracer();
    const char state = record.files->state();
    if (tracer == static_cast<unsigned int>(platform::kernelProcessId()) ||
        (tracer == 0 && state != 't' && refusals++ == 0)) {
        platform::sleepFor(untilLetGo);
        return Stopping::TryAgain;
    }
    if (state == 0 || state == 'Z' || state == 'X') {
        settle(LookResult::NoSuchThread);
        return Stopping::Settled;
    }
    const bool isTraced = tracer != 0 || state == 't';
    settle(isTraced ? LookResult::Traced : LookResult::NotPermitted);
    look.tracer = tracer;
    look.state = state;
    return Stopping::Settled;
}

}  // namespace ThreadUtilities::process
