#include "platform/linux/capture_signal.h"

#include <sched.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "platform/linux/handler/capture_handler.h"
#include "platform/linux/kernel_calls.h"
#include "platform/process_copy.h"

namespace ThreadUtilities::platform {
namespace {

// Two threads that find the handler missing must not both install it: a layer is used up each time.
constinit std::atomic<bool> installing{false};
constinit std::atomic<std::size_t> layersUsed{0};

// The installed handler itself is inherited by the copy, and with it the layers.
RestartInCopy endInstallationInCopy([] { installing = false; });

bool isOurs(const struct sigaction& action) {
    if ((action.sa_flags & SA_SIGINFO) == 0) {
        return false;
    }
    const std::size_t used = layersUsed.load(std::memory_order_acquire);
    for (std::size_t layer = used; layer-- > 0;) {
        if (action.sa_sigaction == handlerOfLayer(layer)) {
            return true;
        }
    }
    return false;
}

bool doesSomething(const struct sigaction& action) {
    return action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
}

// Nothing may interrupt a handler between its claim and its answer, for the interrupting handler
// could jump away and leave the capturer waiting. What a thread does to itself is let through: a
// sandbox may serve our system calls in a handler for SIGSYS.
sigset_t everythingAsynchronous() {
    sigset_t mask;
    std::memset(&mask, 0xff, sizeof(mask));  // sigfillset leaves out the C library's own signals
    for (const int synchronous : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS}) {
        sigdelset(&mask, synchronous);
    }
    return mask;
}

bool installLayer(std::size_t layer, const struct sigaction& current) {
    struct sigaction ours {};
    ours.sa_sigaction = handlerOfLayer(layer);
    ours.sa_mask = everythingAsynchronous();
    // A host that installed its handler without SA_RESTART wants this signal to end its waits.
    ours.sa_flags = SA_SIGINFO | SA_ONSTACK |
                    (doesSomething(current) ? current.sa_flags & SA_RESTART : SA_RESTART);
    setPreviousAction(layer, current);
    struct sigaction replaced {};
    if (sigaction(captureSignal, &ours, &replaced) != 0) {
        return false;
    }
    if (replaced.sa_sigaction != current.sa_sigaction) {
        setPreviousAction(layer, replaced);  // the host was quicker
    }
    return true;
}

// What was there does nothing and knows nothing of our handlers, so the last one can serve again.
bool lastLayerCanServeAgain(std::size_t used, const struct sigaction& current) {
    return used > 0 && !doesSomething(current);
}

bool install() {
    struct sigaction current {};
    if (sigaction(captureSignal, nullptr, &current) != 0) {
        return false;
    }
    if (isOurs(current)) {
        return true;
    }
    const std::size_t used = layersUsed.load(std::memory_order_relaxed);
    if (lastLayerCanServeAgain(used, current)) {
        return installLayer(used - 1, current);
    }
    if (used == handlerLayers) {
        return false;  // a host that insists this often shall have its way
    }
    layersUsed.store(used + 1, std::memory_order_release);
    return installLayer(used, current);
}

}  // namespace

bool ensureCaptureHandler() noexcept {
    constexpr int patience = 1000;
    for (int attempt = 0; attempt < patience; ++attempt) {
        struct sigaction current {};
        if (sigaction(captureSignal, nullptr, &current) == 0 && isOurs(current)) {
            return true;
        }
        if (!installing.exchange(true, std::memory_order_acquire)) {
            const bool installed = install();
            installing.store(false, std::memory_order_release);
            return installed;
        }
        sched_yield();
    }
    return false;
}

SendResult sendCaptureSignal(unsigned int threadId) noexcept {
    siginfo_t info = captureSignalInfo(threadId);
    const long result = kernelCall(SYS_rt_tgsigqueueinfo, info.si_pid, static_cast<int>(threadId),
                                   captureSignal, argument(&info));
    switch (result) {
        case 0:
            return SendResult::Sent;
        case -ESRCH:
        case -EINVAL:  // no thread can have this id
            return SendResult::NoSuchThread;
        default:
            return SendResult::Refused;
    }
}

}  // namespace ThreadUtilities::platform
