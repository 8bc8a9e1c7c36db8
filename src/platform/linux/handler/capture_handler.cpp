#include "platform/linux/handler/capture_handler.h"

#include <cerrno>
#include <utility>

#include "platform/linux/handler/capture_request.h"
#include "platform/linux/handler/passed_on_action.h"
#include "platform/linux/handler/saved_registers.h"
#include "platform/linux/kernel_calls.h"

// Context: signal handler on the target thread; no allocation, no lock, no log, no thread_local.

namespace ThreadUtilities::platform {

constinit RequestTable captureRequests{};

namespace {

constinit std::array<PassedOnAction, handlerLayers> previousActions{};

// Negative codes are the ones that user code may send; this one is no code of the C library.
constexpr int captureSignalCode = -0x7475;

// A process may hold two copies of this code (one linked in statically); each answers its own.
std::uint32_t identityOfThisCopy() noexcept {
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&captureRequests) >> 6);
}

bool isCaptureSignal(const siginfo_t& info) noexcept {
    return info.si_code == captureSignalCode && info.si_uid == identityOfThisCopy();
}

bool claim(CaptureRequest& request, std::uint32_t threadId) noexcept {
    std::uint32_t bits = request.word.load(std::memory_order_acquire);
    while (RequestWord(bits).phase() == RequestPhase::Posted &&
           request.threadId.load(std::memory_order_relaxed) == threadId) {
        const RequestWord claimed = RequestWord(bits).with(RequestPhase::Claimed);
        if (request.word.compare_exchange_weak(bits, claimed.bits(), std::memory_order_acquire)) {
            return true;
        }
    }
    return false;
}

void complete(CaptureRequest& request) noexcept {
    std::uint32_t bits = request.word.load(std::memory_order_relaxed);
    while (!request.word.compare_exchange_weak(
        bits, RequestWord(bits).with(RequestPhase::Done).bits(), std::memory_order_release)) {
    }
    // The capturer may be gone and the slot in other hands here; a wake-up too many is harmless.
    if (RequestWord(bits).capturerSleeps()) {
        futexWakeAll(request.word);
    }
}

void answer(CaptureRequest& request, const ucontext_t& interrupted) noexcept {
    ThreadContext context;
    context.registers = savedRegisters(interrupted);
    context.stack = readableStack(request.stackBounds, context.registers[Rsp]);
    request.answer = request.visitor(context, request.visitorState);
    complete(request);
}

// All requests to this thread, whoever sent the signal: while one signal is pending, the kernel
// drops the next of the same number without a word. Whoever had a signal dropped had posted its
// request before, and thus before this handler began; therefore this finds it. A handler that comes
// late, after its capturer gave up, finds nothing and touches nothing.
void answerAllRequests(const siginfo_t& signal, const ucontext_t& interrupted) noexcept {
    std::uint32_t threadId =
        isCaptureSignal(signal) ? static_cast<std::uint32_t>(signal.si_value.sival_int) : 0;
    for (std::size_t group = 0; group < captureRequests.used.size(); ++group) {
        std::uint64_t used = captureRequests.used[group].load(std::memory_order_acquire);
        for (; used != 0; used &= used - 1) {
            if (threadId == 0) {
                threadId = static_cast<std::uint32_t>(kernelCall(SYS_gettid));
            }
            const auto bit = static_cast<std::size_t>(__builtin_ctzll(used));
            CaptureRequest& request = captureRequests.slots[group * slotsPerWord + bit];
            if (claim(request, threadId)) {
                answer(request, interrupted);
            }
        }
    }
}

void handle(std::size_t layer, int number, siginfo_t* info, void* interrupted) {
    const int savedErrno = errno;
    answerAllRequests(*info, *static_cast<const ucontext_t*>(interrupted));
    errno = savedErrno;
    if (!isCaptureSignal(*info)) {
        previousActions[layer].call(number, info, interrupted);
    }
}

template <std::size_t Layer>
void onSignal(int number, siginfo_t* info, void* interrupted) {
    handle(Layer, number, info, interrupted);
}

template <std::size_t... Layers>
constexpr std::array<SignalFunction, sizeof...(Layers)> makeLayers(std::index_sequence<Layers...>) {
    return {&onSignal<Layers>...};
}

constexpr auto layers = makeLayers(std::make_index_sequence<handlerLayers>());

}  // namespace

siginfo_t captureSignalInfo(unsigned int threadId) noexcept {
    siginfo_t info{};
    info.si_signo = captureSignal;
    info.si_code = captureSignalCode;
    info.si_pid = kernelProcessId();
    info.si_uid = identityOfThisCopy();
    info.si_value.sival_int = static_cast<int>(threadId);
    return info;
}

SignalFunction handlerOfLayer(std::size_t layer) noexcept {
    return layers[layer];
}

void setPreviousAction(std::size_t layer, const struct sigaction& action) noexcept {
    previousActions[layer].set(action);
}

}  // namespace ThreadUtilities::platform
