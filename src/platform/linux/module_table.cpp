#include "platform/linux/module_table.h"

#include <link.h>

#include <algorithm>
#include <atomic>
#include <cstddef>

#include "platform/linux/loader_list.h"
#include "platform/process_copy.h"

namespace ThreadUtilities::platform {
namespace {

/// Modules beyond these have no frames. The memory is the handler's, so it is never allocated.
constexpr std::size_t capacity = 1024;
constexpr int maxReadAttempts = 4;

struct Entry {
    std::atomic<std::uint64_t> begin{0};
    std::atomic<std::uint64_t> end{0};
    std::atomic<std::uint64_t> unwindHeader{0};
};

// A list that readers never wait for: `version` is odd while it is rewritten, and who reads the
// same even number before and after has seen one list, because the writer changes the number with
// release before it touches an entry again, and the reader's fence orders its loads before the
// second look.
Entry entries[capacity];
std::atomic<std::size_t> entryCount{0};
std::atomic<std::uint64_t> version{0};
std::atomic<bool> isBeingWritten{false};

unsigned long long knownAdditions = 0;
unsigned long long knownRemovals = 0;

RestartInCopy startAfresh([] {
    isBeingWritten = false;
    knownAdditions = 0;
    knownRemovals = 0;
});

TableModule moduleOf(const dl_phdr_info& info) noexcept {
    TableModule module{UINT64_MAX, 0, 0};
    for (unsigned index = 0; index < info.dlpi_phnum; ++index) {
        const ElfW(Phdr)& header = info.dlpi_phdr[index];
        const std::uint64_t address = info.dlpi_addr + header.p_vaddr;
        if (header.p_type == PT_LOAD) {
            module.begin = std::min(module.begin, address & ~std::uint64_t{4095});
            module.end = std::max(module.end, address + header.p_memsz);
        } else if (header.p_type == PT_GNU_EH_FRAME) {
            module.unwindHeader = address;
        }
    }
    return module;
}

int addModule(dl_phdr_info* info, std::size_t, void* nextIndex) {
    auto& index = *static_cast<std::size_t*>(nextIndex);
    if (index == 0) {
        if (info->dlpi_adds == knownAdditions && info->dlpi_subs == knownRemovals) {
            return 1;
        }
        knownAdditions = info->dlpi_adds;
        knownRemovals = info->dlpi_subs;
        version.store(version.load(std::memory_order_relaxed) | 1, std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_release);
    }
    if (index < capacity) {
        const TableModule module = moduleOf(*info);
        entries[index].begin.store(module.begin, std::memory_order_relaxed);
        entries[index].end.store(module.end, std::memory_order_relaxed);
        entries[index].unwindHeader.store(module.unwindHeader, std::memory_order_relaxed);
        ++index;
    }
    return 0;
}

bool findEntry(std::uint64_t address, TableModule& module) noexcept {
    const std::size_t count = entryCount.load(std::memory_order_relaxed);
    for (std::size_t index = 0; index < count; ++index) {
        module.begin = entries[index].begin.load(std::memory_order_relaxed);
        module.end = entries[index].end.load(std::memory_order_relaxed);
        if (module.begin <= address && address < module.end) {
            module.unwindHeader = entries[index].unwindHeader.load(std::memory_order_relaxed);
            return true;
        }
    }
    return false;
}

}  // namespace

void refreshModuleTable() noexcept {
    if (isBeingWritten.exchange(true, std::memory_order_acquire)) {
        return;
    }
    std::size_t count = 0;
    walkLoaderList(addModule, &count);
    if (count != 0) {
        entryCount.store(count, std::memory_order_relaxed);
        version.store((version.load(std::memory_order_relaxed) | 1) + 1, std::memory_order_release);
    }
    isBeingWritten.store(false, std::memory_order_release);
}

bool findInModuleTable(std::uint64_t address, TableModule& module) noexcept {
    for (int attempt = 0; attempt < maxReadAttempts; ++attempt) {
        const std::uint64_t before = version.load(std::memory_order_acquire);
        const bool found = findEntry(address, module);
        std::atomic_thread_fence(std::memory_order_acquire);
        if (before % 2 == 0 && version.load(std::memory_order_relaxed) == before) {
            return found;
        }
    }
    return false;
}

}  // namespace ThreadUtilities::platform
