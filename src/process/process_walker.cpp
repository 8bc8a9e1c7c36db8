// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/process_walker.h"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

#include "process/process_space.h"
#include "unwind/stack_words.h"
#include "unwind/table_reader.h"
#include "unwind/table_walk.h"
#include "unwind/walk_memory.h"

namespace ThreadUtilities {
namespace {

using process::ModuleList;
using process::ProcessSpace;

struct Attempt {
    cfi::TableWalk walk;
    bool leftCopy = false;
};

/// Not inlined: most attempts are the only one.
[[gnu::noinline]] Attempt walkOnce(const ProcessSpace& space, cfi::RuleCache& rules,
                                   const platform::ThreadContext& context, bool mayReadStack,
                                   unsigned long long* frames, std::size_t maxFrames) noexcept {
    StackWords words(space, context.stack, context.stackShift, mayReadStack);
    cfi::WalkStart start{context.registers, context.knownRegisters};
    start.stackShift = context.stackShift;
    cfi::TableCopies copies;
    const auto memory = [&rules] { return cfi::WalkMemory{rules}; };
    const cfi::TableWalk walk =
        cfi::walkByTables(start, memory, {space, &copies}, words, frames, maxFrames);
    return {walk, words.wentBeyond()};
}

}  // namespace

ProcessWalker::ProcessWalker(unsigned int process)
    : processId(process),
      rules(std::make_unique<cfi::RuleCache>()),
      list(std::make_shared<const ModuleList>(process, nullptr, lastIdentity)) {
    if (list->isOf32Bits()) {
        throw std::runtime_error("process " + std::to_string(process) +
                                 " runs a 32-bit program, whose stacks cannot be read");
    }
}

// The modules are looked at after the walk: if they are then what they were when their tables were
// read, they were so while the thread had frames in them.
ProcessWalker::Result ProcessWalker::walk(const platform::ThreadContext& context, bool mayReadStack,
                                          unsigned long long* frames,
                                          std::size_t maxFrames) noexcept {
    constexpr int mostAttempts = 3;
    for (int attempts = 1;; ++attempts) {
        const List modules = currentList();
        const ProcessSpace space(*modules);
        const Attempt made = walkOnce(space, *rules, context, mayReadStack, frames, maxFrames);
        const bool hasChanged = !areUnchanged(modules->task(), space.visited());
        if (attempts == mostAttempts || !(hasChanged || space.hasMissed()) ||
            !lookAgain(modules, hasChanged)) {
            return {hasChanged ? 0 : made.walk.frameCount, made.walk.end, made.leftCopy};
        }
    }
}

std::size_t ProcessWalker::readMemory(std::uint64_t address, void* out,
                                      std::size_t size) const noexcept {
    List seen = currentList();
    std::size_t copied = ProcessSpace(*seen).read(address, out, size);
    if (copied == 0 && size != 0 && !seen->showsMemory() && lookAgain(seen, false)) {
        seen = currentList();
        copied = ProcessSpace(*seen).read(address, out, size);
    }
    return copied;
}

std::uint64_t ProcessWalker::mappingEnd(std::uint64_t address) const noexcept {
    return currentList()->mappingEnd(address);
}

ProcessWalker::List ProcessWalker::currentList() const noexcept {
    const std::lock_guard lock(listMutex);
    return list;
}

/// Whether there is another list of modules than the one that was `seen`. Where a module that the
/// walk went through is another one now, the map is read at once; where an address lies in no
/// module, as that of code made at run time, that costs a small part of the time at most.
bool ProcessWalker::lookAgain(const List& seen, bool hasChanged) const noexcept {
    constexpr int timeBetweenLooks = 50;  // in looks
    const std::lock_guard lock(lookMutex);
    if (currentList() != seen) {
        return true;
    }
    const Clock::time_point begin = Clock::now();
    if (!hasChanged && begin < nextLook) {
        return false;
    }
    try {
        auto found = std::make_shared<const ModuleList>(processId, seen.get(), lastIdentity);
        const Clock::time_point end = Clock::now();
        nextLook = end + timeBetweenLooks * (end - begin);
        const bool isOther = !found->isLike(*seen);
        const std::lock_guard listLock(listMutex);
        list = std::move(found);
        return isOther;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace ThreadUtilities
