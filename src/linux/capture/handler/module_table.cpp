// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/handler/module_table.h"

#include <link.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "linux/modules/loader_list.h"
#include "linux/modules/permanent_modules.h"
#include "platform/fork_child.h"

namespace ThreadUtilities::platform {
namespace {

/// Modules beyond these have no frames. The memory is the handler's, so it is never allocated.
constexpr std::size_t capacity = 1024;
constexpr int maxReadAttempts = 4;

struct Entry {
    std::atomic<std::uint64_t> begin{0};
    std::atomic<std::uint64_t> end{0};
    std::atomic<std::uint64_t> unwindHeader{0};
    std::atomic<std::uint64_t> tablesBegin{0};
    std::atomic<std::uint64_t> tablesEnd{0};
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

RestartInForkChild startAfresh([] {
    isBeingWritten = false;
    knownAdditions = 0;
    knownRemovals = 0;
});

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
        const CodeModule module = loadedModule(*info);
        Entry& entry = entries[index];
        entry.begin.store(module.begin, std::memory_order_relaxed);
        entry.end.store(module.begin + module.size, std::memory_order_relaxed);
        entry.unwindHeader.store(module.unwindHeader, std::memory_order_relaxed);
        entry.tablesBegin.store(module.tables.begin, std::memory_order_relaxed);
        entry.tablesEnd.store(module.tables.end, std::memory_order_relaxed);
        ++index;
    }
    return 0;
}

bool findEntry(std::uint64_t address, CodeModule& module) noexcept {
    const std::size_t count = entryCount.load(std::memory_order_relaxed);
    for (std::size_t index = 0; index < count; ++index) {
        const Entry& entry = entries[index];
        module.begin = entry.begin.load(std::memory_order_relaxed);
        module.size = entry.end.load(std::memory_order_relaxed) - module.begin;
        if (address - module.begin < module.size) {
            module.unwindHeader = entry.unwindHeader.load(std::memory_order_relaxed);
            module.tables = {entry.tablesBegin.load(std::memory_order_relaxed),
                             entry.tablesEnd.load(std::memory_order_relaxed)};
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

bool findInModuleTable(std::uint64_t address, CodeModule& module) noexcept {
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
