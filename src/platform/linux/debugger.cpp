#include "platform/debugger.h"

#include <sys/stat.h>

#include <array>
#include <atomic>

#include "platform/linux/kernel_calls.h"
#include "platform/linux/task_file.h"
#include "platform/process_copy.h"

namespace ThreadUtilities::platform {
namespace {

// This process's status file, kept open: opening and closing it would add half to the cost of
// reading it. A host may close or replace descriptors that are not its own, and a child made
// without the C library's knowledge shares ours, so that each use asks whether it is still the one.
class StatusFile {
 public:
    // The first bytes of the file; 0 when it cannot be had.
    std::size_t read(char* out, std::size_t size) noexcept {
        const int kept = descriptor_.load(std::memory_order_acquire);
        if (isStillOurs(kept)) {
            const long got = kernelCall(SYS_pread64, kept, argument(out), static_cast<long>(size));
            return got > 0 ? static_cast<std::size_t>(got) : 0;
        }
        if (renewing_.exchange(true, std::memory_order_acquire)) {
            return KernelFile(path).read(out, size);  // somebody else is about to keep one
        }
        KernelFile file(path);
        const std::size_t got = file.read(out, size);
        keep(file.release());
        renewing_.store(false, std::memory_order_release);
        return got;
    }

    void restartInCopy() noexcept {
        const int inherited = descriptor_.exchange(-1, std::memory_order_relaxed);
        if (isSameFile(inherited)) {
            kernelCall(SYS_close, inherited);
        }
        renewing_.store(false, std::memory_order_relaxed);
    }

 private:
    static constexpr const char* path = "/proc/self/status";

    bool isStillOurs(int descriptor) const noexcept {
        return descriptor >= 0 && owner_.load(std::memory_order_relaxed) == kernelProcessId() &&
               isSameFile(descriptor);
    }

    bool isSameFile(int descriptor) const noexcept {
        struct stat file {};
        return kernelCall(SYS_fstat, descriptor, argument(&file)) == 0 &&
               file.st_ino == inode_.load(std::memory_order_relaxed) &&
               file.st_dev == device_.load(std::memory_order_relaxed);
    }

    // The descriptor kept before is no longer ours and not ours to close.
    void keep(int descriptor) noexcept {
        struct stat file {};
        if (descriptor < 0 || kernelCall(SYS_fstat, descriptor, argument(&file)) != 0) {
            return;
        }
        inode_.store(file.st_ino, std::memory_order_relaxed);
        device_.store(file.st_dev, std::memory_order_relaxed);
        owner_.store(kernelProcessId(), std::memory_order_relaxed);
        descriptor_.store(descriptor, std::memory_order_release);
    }

    std::atomic<bool> renewing_{false};
    std::atomic<int> descriptor_{-1};
    std::atomic<int> owner_{0};
    std::atomic<ino_t> inode_{0};
    std::atomic<dev_t> device_{0};
};

constinit StatusFile ownStatus;
RestartInCopy restartStatusInCopy([] { ownStatus.restartInCopy(); });

}  // namespace

// There is no cheaper way to ask that tells the truth. A tracer of another thread than the first is
// not seen; debuggers attach to all of them.
bool isDebuggerAttached() noexcept {
    std::array<char, 1024> buffer;
    std::string_view text(buffer.data(), ownStatus.read(buffer.data(), buffer.size()));
    constexpr std::string_view name = "\nTracerPid:";
    const std::size_t begin = text.find(name);
    unsigned int tracer = 0;
    return begin != std::string_view::npos && parseField(text.substr(begin), name, 10, tracer) &&
           tracer != 0;
}

}  // namespace ThreadUtilities::platform
