// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/modules/own_modules.h"

#include <limits.h>
#include <link.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/ascii.h"
#include "linux/capture/handler/elf_headers.h"
#include "linux/kernel_calls.h"
#include "linux/modules/build_id.h"
#include "linux/modules/loaded_headers.h"
#include "linux/modules/loader_list.h"
#include "linux/modules/process_map.h"
#include "linux/modules/process_modules.h"
#include "platform/memory.h"
#include "platform/text.h"

// The loader's list is read under the loader's own lock, which glibc takes for changes of the list
// alone and never while code of a module runs. So a thread inside `dlopen` whose constructor calls
// the library, and waits for a lock of the library, does not hold it; therefore to walk the list
// under any lock of the library cannot deadlock. Unmapping happens under that lock too, therefore
// names, program headers and notes stay mapped during the walk.
//
// The callback allocates nothing. An allocator of the host may take its own lock and then walk the
// loader's list (heap profilers capture stacks that way); were we to allocate under the loader's
// lock, the two threads could wait for each other.

namespace ThreadUtilities::platform {
namespace {

struct FoundModule {
    std::uint64_t base;
    std::uint64_t size;
    std::optional<DebugGuid> guid;
    std::size_t nameEnd;  ///< in `LoaderWalk::names`; begins where the one before it ends
};

/// A module whose headers are still to be copied.
struct WaitingModule {
    std::size_t index = 0;
    std::uint64_t loadBias = 0;
    HeaderPlace place;
};

/// What one walk stores, and how much room it would have needed. Most of a walk's time would go
/// into asking the system to copy each module's headers; so that is done for many at once.
struct LoaderWalk {
    static constexpr std::size_t mostWaiting = 32;

    std::vector<FoundModule> modules;
    std::vector<char> names;
    std::size_t moduleCount = 0;
    std::size_t nameBytes = 0;
    std::uint64_t loadedModules = 0;
    std::vector<WaitingModule> waiting = std::vector<WaitingModule>(mostWaiting);
    std::vector<std::uint8_t> copies =
        std::vector<std::uint8_t>(mostWaiting * HeaderPlace::mostBytes);
    std::size_t waitingCount = 0;

    bool fits() const { return moduleCount <= modules.size() && nameBytes <= names.size(); }
    bool isWhole() const { return fits() && waitingCount == 0; }
    std::uint8_t* copyOf(std::size_t number) {
        return copies.data() + number * HeaderPlace::mostBytes;
    }
};

/// Of size 0 when the headers cannot be read.
FoundModule inspect(const CopiedHeaders& headers, std::uint64_t loadBias) noexcept {
    FoundModule module{};
    const auto extent = extentOf(headers.table());
    if (!extent) {
        return module;
    }
    module.base = loadBias + extent->begin;
    module.size = extent->end - extent->begin;
    std::uint8_t copy[512];
    module.guid = buildIdOf(headers.table(), [&](const ProgramHeader& note) {
        const std::uint64_t address = loadBias + note.address;
        const ByteCursor known = headers.bytesAt(address, note.fileSize);
        return known.ok()
                   ? known
                   : ByteCursor(
                         copy, readOwnMemory(address, copy,
                                             std::min<std::uint64_t>(note.fileSize, sizeof(copy))));
    });
    return module;
}

/// Copies the headers of the waiting modules from `first` on, up to the first whose cannot be read;
/// returns how many bytes.
std::size_t copyHeaders(LoaderWalk& walk, std::size_t first) noexcept {
    iovec here[LoaderWalk::mostWaiting];
    iovec there[LoaderWalk::mostWaiting];
    std::size_t count = 0;
    for (std::size_t number = first; number < walk.waitingCount; ++number, ++count) {
        const HeaderPlace& place = walk.waiting[number].place;
        here[count] = {walk.copyOf(number), place.size};
        there[count] = {reinterpret_cast<void*>(place.begin), place.size};
    }
    return copyMemory(kernelProcessId(), std::span(there).first(count),
                      std::span(here).first(count));
}

void inspectWaiting(LoaderWalk& walk) noexcept {
    for (std::size_t number = 0; number < walk.waitingCount;) {
        std::size_t left = copyHeaders(walk, number);
        bool isCopied = true;
        while (isCopied && number < walk.waitingCount) {
            const WaitingModule& module = walk.waiting[number];
            const std::size_t size = std::min(left, module.place.size);
            left -= size;
            isCopied = size == module.place.size;
            const std::size_t nameEnd = walk.modules[module.index].nameEnd;
            walk.modules[module.index] =
                inspect(CopiedHeaders(module.place, walk.copyOf(number), size), module.loadBias);
            walk.modules[module.index].nameEnd = nameEnd;
            ++number;
        }
    }
    walk.waitingCount = 0;
}

/// Context: the loader's lock is held; no allocation, no exception.
int collectModule(dl_phdr_info* info, std::size_t, void* state) noexcept {
    auto& walk = *static_cast<LoaderWalk*>(state);
    const std::size_t nameSize = std::strlen(info->dlpi_name);
    const std::size_t nameBegin = walk.nameBytes;
    const std::size_t index = walk.moduleCount++;
    walk.nameBytes += nameSize;
    walk.loadedModules = info->dlpi_adds - info->dlpi_subs;
    if (walk.fits()) {
        walk.modules[index].nameEnd = walk.nameBytes;
        std::copy_n(info->dlpi_name, nameSize, walk.names.begin() + nameBegin);
        walk.waiting[walk.waitingCount++] = {index, info->dlpi_addr, HeaderPlace(*info)};
        // The modules are there for sure until the walk is over, thus at the latest with the last.
        if (walk.waitingCount == LoaderWalk::mostWaiting ||
            walk.moduleCount == walk.modules.size()) {
            inspectWaiting(walk);
        }
    }
    return 0;
}

/// Walks until everything fits, first to learn how much there is. Only modules that are loaded or
/// unloaded between two walks cost another one.
std::optional<LoaderWalk> collectModules() {
    LoaderWalk walk;
    do {
        walk.modules.resize(walk.moduleCount);
        walk.names.resize(walk.nameBytes);
        walk.moduleCount = 0;
        walk.nameBytes = 0;
        walk.waitingCount = 0;
        if (!walkLoaderList(collectModule, &walk)) {
            return std::nullopt;
        }
    } while (!walk.isWhole());
    return walk;
}

/// Where the link to the program leads: without the kernel's mark of a deleted file, which is told
/// from a name that ends alike by looking whether the program is still there.
std::string linkTarget(std::string_view target) {
    std::string path(target);
    struct stat program{};
    struct stat named{};
    if (isMarkedDeleted(target) &&
        (stat("/proc/thread-self/exe", &program) != 0 || stat(path.c_str(), &named) != 0 ||
         program.st_dev != named.st_dev || program.st_ino != named.st_ino)) {
        path.resize(path.size() - deletedMark.size());
    }
    return path;
}

/// The loader has no name for the program itself.
std::string programPath(std::uint64_t programBase) {
    // A loader that was started as the program, with the real program as its argument, is what
    // the link shows then; such a process has no base address of an interpreter.
    if (getauxval(AT_BASE) == 0) {
        return ownMappedFilePath(programBase);
    }
    // By way of the thread: the process's own link is gone once its first thread has ended.
    char target[PATH_MAX];
    const ssize_t size = readlink("/proc/thread-self/exe", target, sizeof(target));
    if (size > 0) {
        return linkTarget(std::string_view(target, static_cast<std::size_t>(size)));
    }
    const auto* const startedAs = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
    return startedAs != nullptr ? startedAs : "";
}

/// Whether a module was loaded by the number of a descriptor, which is no name of the file: it may
/// have none, and the number means something else by now.
bool isDescriptorPath(std::string_view path) {
    return path.starts_with("/dev/fd/") ||
           (path.starts_with("/proc/") && path.find("/fd/") != std::string_view::npos);
}

WideString pathOf(const FoundModule& module, std::string_view loaderName) {
    if (isDescriptorPath(loaderName)) {
        if (const std::string path = ownMappedFilePath(module.base); !path.empty()) {
            return utf8ToWide(path);
        }
    }
    if (!loaderName.empty()) {
        return utf8ToWide(loaderName);
    }
    if (module.base == getauxval(AT_SYSINFO_EHDR)) {
        return wideFromAscii(kernelImageName);
    }
    return utf8ToWide(programPath(module.base));
}

}  // namespace

std::optional<std::vector<LoadedModule>> listOwnModules() {
    const std::optional<LoaderWalk> collected = collectModules();
    if (!collected || collected->loadedModules > collected->moduleCount) {
        return std::nullopt;
    }
    const LoaderWalk& walk = *collected;
    std::vector<LoadedModule> modules;
    modules.reserve(walk.moduleCount);
    std::size_t nameBegin = 0;
    for (std::size_t index = 0; index < walk.moduleCount; ++index) {
        const FoundModule& found = walk.modules[index];
        const std::string_view name(walk.names.data() + nameBegin, found.nameEnd - nameBegin);
        nameBegin = found.nameEnd;
        if (found.size == 0) {
            return std::nullopt;  // a host hides the headers; the map and the file tell as well
        }
        WideString path = pathOf(found, name);
        if (!path.empty()) {
            modules.push_back({std::move(path), found.base, found.size, found.guid});
        }
    }
    return modules;
}

std::optional<ModuleListVersion> ownModuleListVersion() noexcept {
    std::optional<ModuleListVersion> version;
    walkLoaderList(
        [](dl_phdr_info* info, std::size_t size, void* state) noexcept {
            constexpr std::size_t countsEnd =
                offsetof(dl_phdr_info, dlpi_subs) + sizeof(info->dlpi_subs);
            if (size >= countsEnd) {
                *static_cast<std::optional<ModuleListVersion>*>(state) = {info->dlpi_adds,
                                                                          info->dlpi_subs};
            }
            return 1;  // the counts are the same in every entry
        },
        &version);
    return version;
}

}  // namespace ThreadUtilities::platform
