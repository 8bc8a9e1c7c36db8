// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/blocked_thread.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "linux/capture/run_witness.h"
#include "linux/kernel_calls.h"
#include "linux/proc_file.h"
#include "linux/task_texts.h"
#include "platform/memory.h"
#include "platform/run_witness.h"

namespace ThreadUtilities::platform {
namespace {

std::optional<BlockedAt> whereBlocked(KernelFile&& file) {
    if (!file.isOpen()) {
        return std::nullopt;
    }
    std::array<char, 256> buffer;
    return parseCallText({buffer.data(), file.read(buffer.data(), buffer.size())});
}

// Whether the page that `address` lies on has contents. One that has none because it was never
// touched may be a pager's to provide (userfaultfd(2)): whoever reads it waits for the pager, which
// may be the calling thread. The kernel's count of resident pages leaves out what was moved to the
// swap; the map of pages, which has a word for each, tells that apart. What is not mapped fails at
// once and need not be told apart.
bool isProvided(std::uint64_t address) {
    const std::uint64_t page = address / memoryPageSize;
    unsigned char isResident = 0;
    if (kernelCall(SYS_mincore, static_cast<long>(page * memoryPageSize), memoryPageSize,
                   argument(&isResident)) != 0 ||
        (isResident & 1) != 0) {
        return true;
    }
    constexpr std::uint64_t presentOrSwapped = std::uint64_t{3} << 62;
    std::uint64_t entry = 0;
    const KernelFile map("/proc/self/pagemap");
    return map.isOpen() && map.readAt(page * sizeof(entry), &entry, sizeof(entry)) &&
           (entry & presentOrSwapped) != 0;
}

// The part of the stack that most walks need, copied with one call: thirty frames of usual size. It
// lies on two pages at most. What a thread has called and pushed is there, but what it has only
// made room for need not be: of the pages beside that of the stack pointer, those that are.
class StackCopy {
 public:
    StackCopy(std::uint64_t stackPointer, std::span<std::byte> room) noexcept
        : begin(stackPointer - redZone), bytes(room) {
        const std::uint64_t page = pageOf(stackPointer);
        std::uint64_t end = begin + bytes.size();
        if (begin < page && !isProvided(begin)) {
            begin = page;
        }
        if (end > page + memoryPageSize && !isProvided(end - 1)) {
            end = page + memoryPageSize;
        }
        size = readOwnMemory(begin, bytes.data(), end - begin);
    }

    ReadableRange range() const { return {begin, begin + size}; }
    std::uint64_t shift() const { return reinterpret_cast<std::uint64_t>(bytes.data()) - begin; }
    bool isEmpty() const { return size == 0; }

 private:
    static constexpr std::uint64_t redZone = 128;

    std::uint64_t begin;
    std::span<std::byte> bytes;
    std::size_t size = 0;
};

// The arguments lie in the registers that they came in, for the kernel changes none of these. But
// a call by the old interrupt has them elsewhere, and the file does not say which one it was.
bool stoppedBehindSystemCall(std::uint64_t instructionPointer) {
    constexpr std::array<unsigned char, 2> systemCall{0x0f, 0x05};
    std::array<unsigned char, 2> before{};
    return readOwnMemory(instructionPointer - before.size(), before.data(), before.size()) ==
               before.size() &&
           before == systemCall;
}

constexpr std::uint32_t pointers = registerBit(Rip) | registerBit(Rsp);
constexpr std::uint32_t arguments = registerBit(Rdi) | registerBit(Rsi) | registerBit(Rdx) |
                                    registerBit(R10) | registerBit(R8) | registerBit(R9);

std::optional<BlockedAt> whereBlocked(const VisitRequest& request) {
    const int kept = FilesForVisits(request.witness).call;
    return kept >= 0 ? whereBlocked(KernelFile(kept))
                     : whereBlocked(KernelFile(ownTaskPath(request.threadId, "/syscall")));
}

VisitorAnswer visitKnowing(ThreadContext& context, std::uint32_t known, ContextVisitor visitor,
                           VisitSlot& slot) {
    context.knownRegisters = known;
    VisitorAnswer answer = visitor(context, slot.room());
    while (answer == VisitorAnswer::RoomMissing && slot.growRoom()) {
        answer = visitor(context, slot.room());
    }
    return answer;
}

bool visitAt(const BlockedAt& at, ContextVisitor visitor, VisitSlot& slot) {
    const StackCopy stack(at.registers[Rsp], slot.stackCopy());
    if (stack.isEmpty() && !canCopyOwnMemory()) {
        return false;
    }
    ThreadContext context;
    context.registers = at.registers;
    context.stack = stack.range();
    context.stackShift = stack.shift();
    context.isStopped = false;
    context.scratch = slot.scratch();
    VisitorAnswer answer = visitKnowing(context, pointers, visitor, slot);
    // Few need an argument to find their caller: `vfork` keeps its return address in one, because
    // the fork child, which runs on the same stack, overwrites it there.
    if (answer == VisitorAnswer::RegisterMissing && at.isInSystemCall &&
        stoppedBehindSystemCall(at.registers[Rip])) {
        answer = visitKnowing(context, pointers | arguments, visitor, slot);
    }
    return answer != VisitorAnswer::RegisterMissing;
}

}  // namespace

// The witness is heard before the registers are read and after the walk. The kernel tells registers
// only of a thread that is off the processors while it looks. If the witness says the same both
// times, the thread has not run since that look, therefore the registers and every word of its
// stack belong to one moment, and the modules on its stack were there: whoever unloads them makes
// sure that it is not in them, and it could not have left.
BlockedVisit visitBlockedThread(const VisitRequest& request, VisitSlot& slot,
                                std::optional<ThreadRuns>& atRest) noexcept {
    std::optional<RunWitness> ownWitness;
    const RunWitness* witness = request.witness;
    std::optional<ThreadRuns> before;
    if (request.suspend) {
        if (witness == nullptr) {
            witness = &ownWitness.emplace(request.threadId);
        }
        before = witness->read();
        if (!before) {
            return BlockedVisit::NotPossible;
        }
    }
    const std::optional<BlockedAt> at = whereBlocked(request);
    if (!at) {
        return BlockedVisit::NotPossible;
    }
    if (!isProvided(at->registers[Rsp])) {
        return BlockedVisit::AwaitsItsStack;
    }
    const bool isEnough = visitAt(*at, request.visitor, slot);
    if (request.suspend && witness->read() != before) {
        return BlockedVisit::RanMeanwhile;
    }
    if (!isEnough) {
        return BlockedVisit::NotPossible;
    }
    atRest = before;
    return BlockedVisit::Visited;
}

}  // namespace ThreadUtilities::platform
