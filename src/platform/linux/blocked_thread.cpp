#include "platform/linux/blocked_thread.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/linux/kernel_calls.h"
#include "platform/linux/task_file.h"
#include "platform/memory.h"
#include "platform/thread_clock.h"

namespace ThreadUtilities::platform {
namespace {

struct BlockedAt {
    std::uint64_t instructionPointer = 0;
    std::uint64_t stackPointer = 0;
};

// The last word of `text` as a number, and `text` without it.
bool takeLastNumber(std::string_view& text, std::uint64_t& number) {
    const std::size_t space = text.rfind(' ');
    if (space == std::string_view::npos) {
        return false;
    }
    const std::string_view word = text.substr(space);
    text = text.substr(0, space);
    return parseField(word, " 0x", 16, number);
}

// "running", or for a blocked thread the system call's number and arguments, which are left out
// when it waits for anything else, then the stack pointer and the instruction pointer.
std::optional<BlockedAt> whereBlocked(unsigned int threadId) {
    const KernelFile file(TaskPath(threadId, "syscall").text());
    if (!file.isOpen()) {
        return std::nullopt;
    }
    std::array<char, 256> buffer;
    std::string_view text(buffer.data(), file.read(buffer.data(), buffer.size()));
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    BlockedAt at;
    if (!takeLastNumber(text, at.instructionPointer) || !takeLastNumber(text, at.stackPointer) ||
        at.instructionPointer == 0) {
        return std::nullopt;
    }
    return at;
}

// The part of the stack that most walks need, copied with one call: thirty frames of usual size.
class StackCopy {
 public:
    explicit StackCopy(std::uint64_t stackPointer) noexcept
        : begin_(stackPointer - redZone),
          size_(readOwnMemory(begin_, bytes_.data(), bytes_.size())) {}

    [[nodiscard]] ReadableRange range() const { return {begin_, begin_ + size_}; }
    [[nodiscard]] std::uint64_t shift() const {
        return reinterpret_cast<std::uint64_t>(bytes_.data()) - begin_;
    }
    [[nodiscard]] bool isEmpty() const { return size_ == 0; }

 private:
    static constexpr std::uint64_t redZone = 128;

    std::uint64_t begin_;
    std::array<std::byte, 4096> bytes_;
    std::size_t size_;
};

bool ownMemoryCanBeRead() {
    const int here = 1;
    int copy = 0;
    return readOwnMemory(reinterpret_cast<std::uint64_t>(&here), &copy, sizeof(copy)) ==
           sizeof(copy);
}

bool visitAt(const BlockedAt& at, ContextVisitor visitor, void* state) {
    const StackCopy stack(at.stackPointer);
    if (stack.isEmpty() && !ownMemoryCanBeRead()) {
        return false;
    }
    ThreadContext context;
    context.registers[Rip] = at.instructionPointer;
    context.registers[Rsp] = at.stackPointer;
    context.knownRegisters = registerBit(Rip) | registerBit(Rsp);
    context.stack = stack.range();
    context.stackShift = stack.shift();
    context.standsStill = false;
    return visitor(context, state) == VisitorAnswer::Enough;
}

}  // namespace

// The clock is read before the registers and after the walk. If it shows the same time, the thread
// did not run in between, therefore the registers and every word of its stack belong to one moment,
// and the modules on its stack were there: whoever unloads them makes sure that it is not in them,
// and it could not have left.
BlockedVisit visitBlockedThread(unsigned int threadId, bool mustStand, ContextVisitor visitor,
                                void* state) noexcept {
    const std::optional<std::uint64_t> before = threadRunTime(threadId);
    if (!before) {
        return BlockedVisit::NotPossible;
    }
    const std::optional<BlockedAt> at = whereBlocked(threadId);
    if (!at || !visitAt(*at, visitor, state)) {
        return BlockedVisit::NotPossible;
    }
    return mustStand && threadRunTime(threadId) != before ? BlockedVisit::NotPossible
                                                          : BlockedVisit::Visited;
}

}  // namespace ThreadUtilities::platform
