#include "platform/memory.h"

#include <sys/uio.h>

#include "platform/linux/kernel_calls.h"

// Where a sandbox denies the call, nothing is readable. The other known ways are worse: probing an
// address and then reading it is a race with whoever unmaps it, and copying through a pipe needs
// descriptors that the host may close and reuse in between.

namespace ThreadUtilities::platform {

std::size_t readOwnMemory(std::uint64_t address, void* out, std::size_t size) noexcept {
    const iovec local{out, size};
    const iovec remote{reinterpret_cast<void*>(address), size};
    const long copied = kernelCall(SYS_process_vm_readv, kernelProcessId(), argument(&local), 1,
                                   argument(&remote), 1, 0);
    return copied > 0 ? static_cast<std::size_t>(copied) : 0;
}

}  // namespace ThreadUtilities::platform
