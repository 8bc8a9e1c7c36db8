#include "platform/linux/thread_status.h"

#include <cstdint>

#include "platform/linux/handler/capture_handler.h"
#include "platform/linux/task_file.h"

namespace ThreadUtilities::platform {
namespace {

Answerability answerabilityIn(char state) {
    switch (state) {
        case 'Z':
        case 'X':
            return Answerability::Gone;
        case 'D':
        case 'T':
        case 't':
            return Answerability::Uninterruptible;
        default:
            return Answerability::CanAnswer;
    }
}

bool contains(std::uint64_t signals, int signal) {
    return (signals >> (signal - 1) & 1) != 0;
}

// The C library keeps its cancellation signal out of every mask that a program sets, and itself
// blocks it for moments only, while a thread starts or ends; our handler blocks it while it runs.
// Whoever blocks this one, too, is about to unblock both.
bool blocksForAMoment(std::uint64_t blocked) {
    constexpr int cancellationSignal = 32;
    return contains(blocked, cancellationSignal);
}

}  // namespace

ThreadStatus readThreadStatus(unsigned int threadId) noexcept {
    ThreadStatus status;
    const KernelFile file(TaskPath(threadId, "status").text());
    if (!file.isOpen()) {
        if (file.isMissing() && KernelFile("/proc/self/task").isOpen()) {
            status.answerability = Answerability::Gone;
        }
        return status;
    }
    status.answerability = Answerability::Gone;  // until the file turns out to say something
    LineReader lines(file);
    for (std::string_view line; lines.next(line);) {
        constexpr std::string_view stateName = "State:\t";
        std::uint64_t signals = 0;
        if (line.starts_with(stateName) && line.size() > stateName.size()) {
            status.answerability = answerabilityIn(line[stateName.size()]);
            status.sleeps = line[stateName.size()] == 'S';
        } else if (parseField(line, "SigPnd:", 16, signals)) {
            status.signalIsPending = contains(signals, captureSignal);
        } else if (parseField(line, "SigBlk:", 16, signals)) {
            status.signalIsBlocked = contains(signals, captureSignal);
            const bool forLong = status.signalIsBlocked && !blocksForAMoment(signals);
            if (status.answerability == Answerability::CanAnswer && forLong) {
                status.answerability = Answerability::BlocksSignal;
            }
            break;
        }
    }
    return status;
}

}  // namespace ThreadUtilities::platform
