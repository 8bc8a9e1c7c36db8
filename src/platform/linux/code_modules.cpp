#include "platform/code_modules.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/auxv.h>

#include <algorithm>
#include <atomic>
#include <exception>

#include "platform/linux/module_identity.h"
#include "platform/linux/module_table.h"
#include "platform/memory.h"

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

std::atomic<FindObject> findObject{nullptr};
std::atomic<bool> isPrepared{false};

/// Where the modules begin that are never unloaded: the program, the libraries that this one stands
/// on, and this one itself, without which nobody asks. 0 in unused places.
std::atomic<std::uint64_t> permanentModules[8];

std::uint64_t addressOf(const void* pointer) noexcept {
    return reinterpret_cast<std::uint64_t>(pointer);
}

bool findMapped(std::uint64_t address, CodeModule& module) noexcept {
    if (const FindObject find = findObject.load(std::memory_order_relaxed)) {
        FoundObject found;
        if (find(reinterpret_cast<void*>(address), &found) != 0) {
            return false;
        }
        module.begin = addressOf(found.mapStart);
        module.end = addressOf(found.mapEnd);
        module.unwindHeader = addressOf(found.unwindHeader);
        return true;
    }
    TableModule found;
    if (!findInModuleTable(address, found)) {
        return false;
    }
    module.begin = found.begin;
    module.end = found.end;
    module.unwindHeader = found.unwindHeader;
    return true;
}

bool isPermanent(std::uint64_t begin) noexcept {
    return std::any_of(std::begin(permanentModules), std::end(permanentModules),
                       [begin](const std::atomic<std::uint64_t>& known) {
                           return known.load(std::memory_order_relaxed) == begin;
                       });
}

void findPermanentModules() noexcept {
    const std::uint64_t insides[] = {
        getauxval(AT_PHDR),
        getauxval(AT_SYSINFO_EHDR),
        getauxval(AT_BASE),                                   // the dynamic linker
        addressOf(reinterpret_cast<void*>(&getauxval)),       // the C library
        addressOf(reinterpret_cast<void*>(&std::terminate)),  // the C++ library
        addressOf(reinterpret_cast<void*>(&prepareModuleLookup)),
    };
    static_assert(std::size(insides) <= std::size(permanentModules));
    for (std::size_t index = 0; index < std::size(insides); ++index) {
        CodeModule module;
        if (insides[index] != 0 && findMapped(insides[index], module)) {
            permanentModules[index].store(module.begin, std::memory_order_relaxed);
        }
    }
}

ByteCursor firstPage(const CodeModule& module) noexcept {
    return {reinterpret_cast<const void*>(module.begin),
            std::min(modulePageSize, module.end - module.begin)};
}

/// Not inlined: the copy must not be on the stack of a thread that walks itself.
[[gnu::noinline]] std::uint64_t identityFromCopy(const CodeModule& module) noexcept {
    std::uint8_t copy[modulePageSize];
    const std::size_t size =
        readOwnMemory(module.begin, copy, std::min(modulePageSize, module.end - module.begin));
    return moduleIdentity(module.begin, module.unwindHeader, ByteCursor(copy, size));
}

}  // namespace

void prepareModuleLookup() noexcept {
    if (isPrepared.load(std::memory_order_acquire)) {
        if (findObject.load(std::memory_order_relaxed) == nullptr) {
            refreshModuleTable();
        }
        return;
    }
    // Two threads may come here at once; both store the same.
    findObject.store(reinterpret_cast<FindObject>(dlsym(RTLD_DEFAULT, "_dl_find_object")),
                     std::memory_order_relaxed);
    if (findObject.load(std::memory_order_relaxed) == nullptr) {
        refreshModuleTable();
    }
    findPermanentModules();
    isPrepared.store(true, std::memory_order_release);
}

bool findCodeModule(std::uint64_t address, bool staysLoaded, CodeModule& module) noexcept {
    if (!findMapped(address, module)) {
        return false;
    }
    module.isPermanent = isPermanent(module.begin);
    if (module.isPermanent) {
        module.identity = module.begin;  // nothing else will ever be there
    } else if (staysLoaded) {
        module.identity = moduleIdentity(module.begin, module.unwindHeader, firstPage(module));
    } else {
        module.identity = identityFromCopy(module);
    }
    return true;
}

ReadableRange readableSegment(const CodeModule& module, std::uint64_t address) noexcept {
    return mappedSegment(module.begin, module.end, address, firstPage(module));
}

}  // namespace ThreadUtilities::platform
