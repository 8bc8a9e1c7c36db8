#include "platform/linux/proc_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>

#include "platform/linux/uncancelled.h"

namespace ThreadUtilities::platform {

ProcPath::ProcPath(std::string_view before, unsigned int number, std::string_view after) noexcept {
    char* position = std::copy(before.begin(), before.end(), characters.begin());
    position = std::to_chars(position, characters.end(), number).ptr;
    position = std::copy(after.begin(), after.end(), position);
    *position = '\0';
}

std::string_view readProcFile(const ProcPath& path, char* buffer, std::size_t size) noexcept {
    const CancellationOff cancellationOff;
    const int descriptor = open(path.text(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        return {};
    }
    const ssize_t length = read(descriptor, buffer, size);
    close(descriptor);
    return length > 0 ? std::string_view(buffer, static_cast<std::size_t>(length))
                      : std::string_view();
}

}  // namespace ThreadUtilities::platform
