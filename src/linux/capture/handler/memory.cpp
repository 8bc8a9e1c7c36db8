// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/memory.h"

#include <sys/uio.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "linux/kernel_calls.h"

// Where a sandbox denies the call, nothing is readable. The other known ways are worse: probing an
// address and then reading it is a race with whoever unmaps it, and copying through a pipe needs
// descriptors that the host may close and reuse in between.

namespace ThreadUtilities::platform {
namespace {

// The kernel copies the new signal mask before it looks at what is to be done with it, which is
// nothing that it knows. Therefore memory that cannot be read is a bad address, all else an invalid
// argument, and nothing changes either way.
long askKernel(std::uint64_t address) noexcept {
    constexpr long noOperation = -1;
    constexpr long maskSize = 8;
    return kernelCall(SYS_rt_sigprocmask, noOperation, static_cast<long>(address), 0, maskSize);
}

enum class Answers : int { Unknown, Differ, AreAlike };
std::atomic<Answers> answers{Answers::Unknown};

// An emulated kernel may look at the operation first: it says the same of memory that no program
// can read, and of all other.
bool kernelTells() noexcept {
    constexpr std::uint64_t ofTheKernel = 0xFFFF'8000'0000'0000;
    Answers known = answers.load(std::memory_order_relaxed);
    if (known == Answers::Unknown) {
        known = askKernel(ofTheKernel) == -EFAULT ? Answers::Differ : Answers::AreAlike;
        answers.store(known, std::memory_order_relaxed);
    }
    return known == Answers::Differ;
}

}  // namespace

bool isReadableNow(std::uint64_t address) noexcept {
    return askKernel(address) == -EINVAL && kernelTells();
}

std::size_t readOwnMemory(std::uint64_t address, void* out, std::size_t size) noexcept {
    const iovec there[] = {{reinterpret_cast<void*>(address), size}};
    const iovec here[] = {{out, size}};
    return copyMemory(kernelProcessId(), there, here);
}

}  // namespace ThreadUtilities::platform
