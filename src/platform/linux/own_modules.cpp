// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/linux/own_modules.h"

#include <limits.h>
#include <link.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/ascii.h"
#include "foundation/text_conversion.h"
#include "platform/linux/elf_headers.h"
#include "platform/linux/elf_image.h"
#include "platform/linux/loaded_headers.h"
#include "platform/linux/loader_list.h"
#include "platform/linux/process_map.h"
#include "platform/linux/process_modules.h"
#include "platform/memory.h"

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

/// What one walk stores, and how much room it would have needed.
struct LoaderWalk {
    std::vector<FoundModule> modules = std::vector<FoundModule>(128);
    std::vector<char> names = std::vector<char>(16 * 1024);
    std::size_t moduleCount = 0;
    std::size_t nameBytes = 0;
    std::uint64_t loadedModules = 0;

    bool fits() const { return moduleCount <= modules.size() && nameBytes <= names.size(); }
};

std::optional<DebugGuid> readBuildId(const LoadedHeaders& headers, std::uint64_t address,
                                     const ProgramHeader& note) noexcept {
    const ByteCursor known = headers.bytesAt(address, note.fileSize);
    if (known.ok()) {
        return findBuildId(known, note.alignment);
    }
    std::uint8_t copy[512];
    const std::size_t size =
        readOwnMemory(address, copy, std::min<std::uint64_t>(note.fileSize, sizeof(copy)));
    return findBuildId(ByteCursor(copy, size), note.alignment);
}

/// Of size 0 when the headers cannot be read.
FoundModule inspect(const dl_phdr_info& info) noexcept {
    FoundModule module{};
    const LoadedHeaders headers(info);
    const auto extent = extentOf(headers.table());
    if (!extent) {
        return module;
    }
    module.base = info.dlpi_addr + extent->begin;
    module.size = extent->end - extent->begin;
    ByteCursor table = headers.table();
    while (!module.guid && !table.atEnd()) {
        const ProgramHeader header = takeProgramHeader(table);
        if (header.type == PT_NOTE) {
            module.guid = readBuildId(headers, info.dlpi_addr + header.address, header);
        }
    }
    return module;
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
        walk.modules[index] = inspect(*info);
        walk.modules[index].nameEnd = walk.nameBytes;
        std::copy_n(info->dlpi_name, nameSize, walk.names.begin() + nameBegin);
    }
    return 0;
}

/// Walks until everything fits. Only modules that are loaded between two walks cost another one.
std::optional<LoaderWalk> collectModules() {
    LoaderWalk walk;
    if (!walkLoaderList(collectModule, &walk)) {
        return std::nullopt;
    }
    while (!walk.fits()) {
        walk.modules.resize(std::max(walk.modules.size(), walk.moduleCount + 16));
        walk.names.resize(std::max(walk.names.size(), walk.nameBytes + PATH_MAX));
        walk.moduleCount = 0;
        walk.nameBytes = 0;
        walkLoaderList(collectModule, &walk);
    }
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
