// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/code_modules.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/auxv.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>

#include "linux/capture/handler/module_identity.h"
#include "linux/capture/handler/module_table.h"
#include "linux/modules/permanent_modules.h"

namespace ThreadUtilities::platform {
namespace {

/// What `_dl_find_object` fills in (glibc 2.35 and later; "Dynamic Linker Introspection" in its
/// manual). Declared here, since the library is built where the C library may be older.
struct FoundObject {
    unsigned long long flags;
    void* mapStart;
    void* mapEnd;
    link_map* linkMap;
    void* unwindHeader;
    unsigned long long reserved[7];
};

/// Finds the module of an address without a lock, in a signal handler too.
using FindObject = int (*)(void* address, FoundObject* result);

constinit std::atomic<FindObject> findObject{nullptr};

/// Because no address of these ever belongs to another module, one identity does for all of them,
/// and a walk from one to the next need not look up which it is in.
constexpr std::uint64_t sharedIdentity = 0x5851F42D4C957F2D;

/// Modules beyond these are looked at like those that may be unloaded.
constexpr std::size_t mostPermanent = 512;
constinit CodeModule permanentModules[mostPermanent];
/// Their number; the entries do not change once it is set.
constinit std::atomic<std::size_t> permanentCount{0};

std::uint64_t addressOf(const void* pointer) noexcept {
    return reinterpret_cast<std::uint64_t>(pointer);
}

// Everything is bound at load, because `dlsym` waits for the lock that a thread holds which opens a
// library, for as long as that library's constructors take. Here it cannot be missed: either the
// process starts, or this thread is the one that holds it. A capture before this, by a constructor
// that runs still earlier, finds no modules.
__attribute__((constructor(101))) void bindModuleLookup() noexcept {
    const auto find = reinterpret_cast<FindObject>(dlsym(RTLD_DEFAULT, "_dl_find_object"));
    findObject.store(find, std::memory_order_relaxed);
    const std::uint64_t insides[] = {
        getauxval(AT_PHDR),
        addressOf(reinterpret_cast<void*>(&getauxval)),       // the C library
        addressOf(reinterpret_cast<void*>(&std::terminate)),  // the C++ library
        addressOf(reinterpret_cast<void*>(&prepareModuleLookup)),
        getauxval(AT_BASE),  // the dynamic linker
        getauxval(AT_SYSINFO_EHDR),
    };
    const std::uint64_t loader = getauxval(AT_BASE);
    const std::size_t count = findPermanentModules(
        insides, loader != 0 ? loader : addressOf(reinterpret_cast<void*>(find)), permanentModules);
    for (std::size_t index = 0; index < count; ++index) {
        permanentModules[index].isPermanent = true;
        permanentModules[index].identity = sharedIdentity;
    }
    permanentCount.store(count, std::memory_order_release);
}

bool findMapped(std::uint64_t address, CodeModule& module) noexcept {
    const FindObject find = findObject.load(std::memory_order_relaxed);
    if (find == nullptr) {
        return findInModuleTable(address, module);
    }
    FoundObject found;
    if (find(reinterpret_cast<void*>(address), &found) != 0) {
        return false;
    }
    module.begin = addressOf(found.mapStart);
    module.size = addressOf(found.mapEnd) - module.begin;
    module.unwindHeader = addressOf(found.unwindHeader);
    module.tables = {};
    return true;
}

const CodeModule* findPermanent(std::uint64_t address) noexcept {
    const CodeModule* const first = permanentModules;
    const CodeModule* const end = first + permanentCount.load(std::memory_order_acquire);
    const CodeModule* const above = std::upper_bound(
        first, end, address,
        [](std::uint64_t wanted, const CodeModule& module) { return wanted < module.begin; });
    if (above == first || address - above[-1].begin >= above[-1].size) {
        return nullptr;
    }
    return above - 1;
}

}  // namespace

void prepareModuleLookup() noexcept {
    if (findObject.load(std::memory_order_relaxed) == nullptr) {
        refreshModuleTable();
    }
}

bool findCodeModule(std::uint64_t address, CodeModule& module, bool mayCallSystem) noexcept {
    if (const CodeModule* const permanent = findPermanent(address)) {
        module = *permanent;
        module.withoutSystemCalls = !mayCallSystem;
        return true;
    }
    if (!findMapped(address, module)) {
        return false;
    }
    module.isPermanent = false;
    module.withoutSystemCalls = !mayCallSystem;
    module.identity =
        mayCallSystem ? moduleIdentity(module.begin, module.size, module.unwindHeader) : 0;
    if (mayCallSystem && module.identity == 0 && module.tables.begin == module.tables.end) {
        // Nothing is kept of such a module, so each of its frames will ask for its tables.
        module.tables = mappedSegment(module.begin, module.size, module.unwindHeader);
    }
    return true;
}

std::uint64_t permanentIdentity() noexcept {
    return permanentCount.load(std::memory_order_relaxed) != 0 ? sharedIdentity : 0;
}

ReadableRange readableSegment(const CodeModule& module, std::uint64_t address) noexcept {
    if (address - module.tables.begin < module.tables.end - module.tables.begin) {
        return module.tables;
    }
    return module.withoutSystemCalls ? ReadableRange{}
                                     : mappedSegment(module.begin, module.size, address);
}

void setModuleTableUse(bool always) noexcept {
    findObject.store(
        always ? nullptr : reinterpret_cast<FindObject>(dlsym(RTLD_DEFAULT, "_dl_find_object")),
        std::memory_order_relaxed);
}

}  // namespace ThreadUtilities::platform
