#pragma once

// Why a thread does not answer.

namespace ThreadUtilities::platform {

enum class Answerability {
    CanAnswer,        ///< runs, or will as soon as a processor is free
    BlocksSignal,     ///< has the capture signal blocked
    Uninterruptible,  ///< waits for a device or is stopped; no signal reaches it before that ends
    Gone,             ///< ended
    Unknown,          ///< cannot be told
};

struct ThreadStatus {
    Answerability answerability = Answerability::Unknown;
    bool signalIsPending = false;
    bool signalIsBlocked = false;  ///< as in a signal handler that has just begun
    bool sleeps = false;           ///< waits in the kernel, interruptibly
};

ThreadStatus readThreadStatus(unsigned int threadId) noexcept;

}  // namespace ThreadUtilities::platform
