// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/process_space.h"

#include <sys/uio.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "linux/kernel_calls.h"
#include "platform/code_modules.h"
#include "platform/memory.h"
#include "process/stack_copy.h"

namespace ThreadUtilities::process {

// Beside a module, whose pages the kernel fills from a file, a page without contents is not asked
// for: it may be one that nobody ever provides (stack_copy.h). Most are zero, which ends a walk
// too.
std::size_t ProcessSpace::read(std::uint64_t address, void* out, std::size_t size) const noexcept {
    const std::uint64_t page = platform::pageOf(address);
    const bool isOnOnePage = platform::pageOf(address + size - 1) == page;
    if (!(isOnOnePage && page == providedPage) && list.find(address) == nullptr) {
        size = providedBytes(list.pageMap(), address, size);
        providedPage = isOnOnePage && size != 0 ? page : providedPage;
    }
    const iovec there[] = {{reinterpret_cast<void*>(address), size}};
    const iovec here[] = {{out, size}};
    return platform::copyMemory(list.task(), there, here);
}

// The list outlives the walk, and the copied tables with it: therefore they count as permanent.
bool ProcessSpace::findModule(std::uint64_t address, platform::CodeModule& module,
                              bool) const noexcept {
    const ProcessModule* const found = list.find(address);
    if (found == nullptr) {
        missed = true;
        return false;
    }
    note(found);
    const UnwindTables* const tables = found->tables(list.task());
    module = {};
    module.begin = found->begin();
    module.size = found->size();
    module.unwindHeader = tables != nullptr ? tables->header() : 0;
    module.identity = found->identity();
    module.isPermanent = true;
    return true;
}

cfi::TableBytes ProcessSpace::tablesAround(const platform::CodeModule& module,
                                           std::uint64_t address) const noexcept {
    const ProcessModule* const found = list.find(module.begin);
    const UnwindTables* const tables = found != nullptr ? found->tables(list.task()) : nullptr;
    return tables != nullptr ? tables->around(address) : cfi::TableBytes{};
}

void ProcessSpace::note(const ProcessModule* module) const noexcept {
    const auto known = visited();
    if (count < modules.size() && std::find(known.begin(), known.end(), module) == known.end()) {
        modules[count++] = module;
    }
}

}  // namespace ThreadUtilities::process
