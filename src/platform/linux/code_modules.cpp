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
#include "platform/process_copy.h"

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
std::atomic<bool> isBeingPrepared{false};

/// Because no address of these ever belongs to another module, one identity does for all of them,
/// and a walk from one to the next need not look up which it is in.
constexpr std::uint64_t sharedIdentity = 0x5851F42D4C957F2D;

/// The modules that are never unloaded: the program, the libraries that this one stands on, and
/// this one itself, without which nobody asks. Constant once `isPrepared` is set.
struct PermanentModules {
    CodeModule modules[8];
    std::size_t count = 0;
};
PermanentModules permanentModules;

// The thread that prepared may not be there any more.
RestartInCopy prepareAnew([] {
    if (!isPrepared.load(std::memory_order_relaxed)) {
        permanentModules.count = 0;
        isBeingPrepared.store(false, std::memory_order_relaxed);
    }
});

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
        module.size = addressOf(found.mapEnd) - module.begin;
        module.unwindHeader = addressOf(found.unwindHeader);
        return true;
    }
    TableModule found;
    if (!findInModuleTable(address, found)) {
        return false;
    }
    module.begin = found.begin;
    module.size = found.end - found.begin;
    module.unwindHeader = found.unwindHeader;
    return true;
}

const CodeModule* findPermanent(std::uint64_t address) noexcept {
    if (!isPrepared.load(std::memory_order_acquire)) {
        return nullptr;
    }
    for (std::size_t index = 0; index < permanentModules.count; ++index) {
        const CodeModule& module = permanentModules.modules[index];
        if (address - module.begin < module.size) {
            return &module;
        }
    }
    return nullptr;
}

void findPermanentModules() noexcept {
    const std::uint64_t insides[] = {
        getauxval(AT_PHDR),
        addressOf(reinterpret_cast<void*>(&getauxval)),       // the C library
        addressOf(reinterpret_cast<void*>(&std::terminate)),  // the C++ library
        addressOf(reinterpret_cast<void*>(&prepareModuleLookup)),
        getauxval(AT_BASE),  // the dynamic linker
        getauxval(AT_SYSINFO_EHDR),
    };
    static_assert(std::size(insides) <= std::size(permanentModules.modules));
    for (const std::uint64_t inside : insides) {
        CodeModule module;
        if (inside != 0 && findMapped(inside, module)) {
            module.isPermanent = true;
            module.identity = sharedIdentity;
            permanentModules.modules[permanentModules.count++] = module;
        }
    }
}

ByteCursor firstPage(const CodeModule& module) noexcept {
    return {reinterpret_cast<const void*>(module.begin), std::min(modulePageSize, module.size)};
}

/// Not inlined: the copy must not be on the stack of a thread that walks itself.
[[gnu::noinline]] std::uint64_t identityFromCopy(const CodeModule& module) noexcept {
    std::uint8_t copy[modulePageSize];
    const std::size_t size =
        readOwnMemory(module.begin, copy, std::min(modulePageSize, module.size));
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
    // Any number of threads may come this far; all store the same.
    findObject.store(reinterpret_cast<FindObject>(dlsym(RTLD_DEFAULT, "_dl_find_object")),
                     std::memory_order_relaxed);
    if (findObject.load(std::memory_order_relaxed) == nullptr) {
        refreshModuleTable();
    }
    // Whoever finds another thread here goes on without: to his lookups no module is permanent yet,
    // and what they find is right all the same.
    if (!isBeingPrepared.exchange(true, std::memory_order_acquire)) {
        findPermanentModules();
        isPrepared.store(true, std::memory_order_release);
    }
}

bool findCodeModule(std::uint64_t address, bool staysLoaded, CodeModule& module) noexcept {
    if (const CodeModule* const permanent = findPermanent(address)) {
        module = *permanent;
        return true;
    }
    if (!findMapped(address, module)) {
        return false;
    }
    module.isPermanent = false;
    module.identity = staysLoaded
                          ? moduleIdentity(module.begin, module.unwindHeader, firstPage(module))
                          : identityFromCopy(module);
    return true;
}

std::uint64_t permanentIdentity() noexcept {
    return isPrepared.load(std::memory_order_acquire) ? sharedIdentity : 0;
}

ReadableRange readableSegment(const CodeModule& module, std::uint64_t address) noexcept {
    return mappedSegment(module.begin, module.begin + module.size, address, firstPage(module));
}

}  // namespace ThreadUtilities::platform
