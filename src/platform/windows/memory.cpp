#include "platform/memory.h"

#include <windows.h>

#include <algorithm>

namespace ThreadUtilities::platform {
namespace {

constexpr std::uint64_t pageSize = 4096;

SIZE_T readWhole(std::uint64_t address, void* out, std::size_t size) noexcept {
    SIZE_T copied = 0;
    const BOOL isRead = ReadProcessMemory(
        GetCurrentProcess(), reinterpret_cast<const void*>(address), out, size, &copied);
    return isRead != 0 ? size : copied;
}

}  // namespace

std::size_t readOwnMemory(std::uint64_t address, void* out, std::size_t size) noexcept {
    // A read that runs into a hole may report nothing at all, so it goes page by page.
    std::size_t done = 0;
    while (done < size) {
        const std::uint64_t from = address + done;
        const std::size_t wanted = std::min<std::size_t>(size - done, pageSize - from % pageSize);
        const std::size_t copied = readWhole(from, static_cast<std::byte*>(out) + done, wanted);
        done += copied;
        if (copied < wanted) {
            break;
        }
    }
    return done;
}

}  // namespace ThreadUtilities::platform
