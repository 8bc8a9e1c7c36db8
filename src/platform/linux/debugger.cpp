#include "platform/debugger.h"

#include "platform/linux/task_file.h"

namespace ThreadUtilities::platform {

// The file is opened anew for every question: the kernel needs 5 microseconds to write it and one
// more to open it, and in return there is no descriptor that a host could close or replace, or that
// a copied process could hold of its parent's.
bool isDebuggerAttached() noexcept {
    const KernelFile file("/proc/self/status");
    if (!file.isOpen()) {
        return false;
    }
    LineReader lines(file);
    for (std::string_view line; lines.next(line);) {
        unsigned int tracer = 0;
        if (parseField(line, "TracerPid:", 10, tracer)) {
            return tracer != 0;
        }
    }
    return false;
}

}  // namespace ThreadUtilities::platform
