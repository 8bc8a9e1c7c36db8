#pragma once

// The host's own action for the signal that captures use.

#include <csignal>

#include <atomic>
#include <cstdint>

#include "platform/linux/kernel_calls.h"

namespace ThreadUtilities::platform {

/// Keeps an action and carries it out as the kernel would have.
class PassedOnAction {
 public:
    void set(const struct sigaction& action) noexcept {
        // A signal between these stores may find an older function with newer flags. That changes
        // the mask under which the function runs once, and nothing else, because the call below
        // has one form for all functions.
        flags_.store(action.sa_flags, std::memory_order_release);
        mask_.store(kernelMask(action.sa_mask), std::memory_order_release);
        function_.store(reinterpret_cast<std::uintptr_t>(action.sa_handler),
                        std::memory_order_release);
    }

    /// Context: signal handler.
    void call(int number, siginfo_t* info, void* interrupted) noexcept {
        std::uintptr_t function = function_.load(std::memory_order_acquire);
        const int flags = flags_.load(std::memory_order_acquire);
        if (doesNothing(function)) {
            return;
        }
        if ((flags & resetHand) != 0 &&
            !function_.compare_exchange_strong(function, 0, std::memory_order_acq_rel)) {
            return;
        }
        enterMask(static_cast<const ucontext_t*>(interrupted)->uc_sigmask, number, flags);
        // Like the kernel, which fills all three argument registers for plain handlers as well.
        reinterpret_cast<void (*)(int, siginfo_t*, void*)>(function)(number, info, interrupted);
    }

 private:
    static constexpr int resetHand = static_cast<int>(SA_RESETHAND);

    static bool doesNothing(std::uintptr_t function) noexcept {
        // What the default action of this signal does, too.
        return function == reinterpret_cast<std::uintptr_t>(SIG_DFL) ||
               function == reinterpret_cast<std::uintptr_t>(SIG_IGN);
    }

    // The kernel's 64 signals are the first eight bytes of the C library's larger set.
    static std::uint64_t kernelMask(const sigset_t& set) noexcept {
        std::uint64_t bits = 0;
        __builtin_memcpy(&bits, &set, sizeof(bits));
        return bits;
    }

    // Our handler runs with nearly everything blocked; the host's gets the mask that it asked for.
    // The return from the signal puts the interrupted code's own mask back.
    void enterMask(const sigset_t& interruptedMask, int number, int flags) const noexcept {
        std::uint64_t mask = kernelMask(interruptedMask) | mask_.load(std::memory_order_acquire);
        if ((flags & SA_NODEFER) == 0) {
            mask |= std::uint64_t{1} << (number - 1);
        }
        kernelCall(SYS_rt_sigprocmask, SIG_SETMASK, argument(&mask), 0, sizeof(mask));
    }

    std::atomic<std::uintptr_t> function_{0};
    std::atomic<std::uint64_t> mask_{0};
    std::atomic<int> flags_{0};
};

}  // namespace ThreadUtilities::platform
