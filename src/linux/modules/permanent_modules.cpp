// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/modules/permanent_modules.h"

#include <elf.h>
#include <sys/auxv.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "linux/capture/handler/elf_headers.h"
#include "linux/modules/loaded_headers.h"
#include "linux/modules/loader_list.h"

// Which modules are never unloaded. The loader frees a module when its count of uses falls to zero,
// and it counts only what `dlopen` brought: the program, what was preloaded, and all that these
// need, directly or not, are marked as there from the start, and each `dlclose` begins by marking
// them, with all that they need, as used. Therefore they stay, whoever opens and closes them again.
//
// Which they are, the order of the loader's list tells. It begins with the program, the others of
// the start follow in the order in which they were found, and what `dlopen` brings is appended;
// nothing is moved later. The dynamic linker takes its place among those of the start, because the
// C library needs it. Therefore all that stand before it are of the start too. Some of those behind
// it are as well, which is not known of them: they are looked at like any that may go.
//
// The list of another link-map namespace does not begin with the program, and tells nothing.

namespace ThreadUtilities::platform {
namespace {

struct Collection {
    std::span<CodeModule> modules;
    std::size_t count = 0;
};

int collect(dl_phdr_info* info, std::size_t, void* state) noexcept {
    auto& collection = *static_cast<Collection*>(state);
    if (collection.count == collection.modules.size()) {
        return 1;
    }
    collection.modules[collection.count++] = loadedModule(*info);
    return 0;
}

bool covers(const CodeModule& module, std::uint64_t address) noexcept {
    return address - module.begin < module.size;
}

/// How many modules at the front of the list are of the start.
std::size_t countStartModules(std::span<const CodeModule> list,
                              std::uint64_t loaderInside) noexcept {
    if (list.empty() || !covers(list.front(), getauxval(AT_PHDR))) {
        return 0;
    }
    const auto loader = std::find_if(list.begin(), list.end(), [=](const CodeModule& module) {
        return covers(module, loaderInside);
    });
    return loader == list.end() ? 0 : static_cast<std::size_t>(loader - list.begin()) + 1;
}

}  // namespace

CodeModule loadedModule(const dl_phdr_info& info) noexcept {
    const LoadedHeaders headers(info);
    CodeModule module;
    const auto extent = extentOf(headers.table());
    if (!extent) {
        return module;
    }
    module.begin = info.dlpi_addr + extent->begin;
    module.size = extent->end - extent->begin;
    ByteCursor table = headers.table();
    while (!table.atEnd()) {
        const ProgramHeader header = takeProgramHeader(table);
        if (header.type == PT_GNU_EH_FRAME) {
            module.unwindHeader = info.dlpi_addr + header.address;
            const ReadableRange segment = readableSegmentOf(headers.table(), header.address);
            module.tables = {info.dlpi_addr + segment.begin, info.dlpi_addr + segment.end};
        }
    }
    return module;
}

std::size_t findPermanentModules(std::span<const std::uint64_t> insides, std::uint64_t loaderInside,
                                 std::span<CodeModule> modules) noexcept {
    Collection collection{modules};
    walkLoaderList(collect, &collection);
    const std::span<CodeModule> list = modules.first(collection.count);
    const std::size_t startModules = countStartModules(list, loaderInside);
    const auto end = std::remove_if(
        list.begin() + static_cast<std::ptrdiff_t>(startModules), list.end(),
        [=](const CodeModule& module) {
            return std::none_of(insides.begin(), insides.end(),
                                [&](std::uint64_t inside) { return covers(module, inside); });
        });
    std::sort(list.begin(), end, [](const CodeModule& left, const CodeModule& right) {
        return left.begin < right.begin;
    });
    return static_cast<std::size_t>(end - list.begin());
}

}  // namespace ThreadUtilities::platform
