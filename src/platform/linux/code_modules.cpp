#include "platform/code_modules.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/auxv.h>

#include <atomic>

#include "platform/linux/module_identity.h"

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

/// An address in the program itself, which stays loaded to the end.
std::atomic<std::uint64_t> programHeaders{0};

std::uint64_t addressOf(const void* pointer) noexcept {
    return reinterpret_cast<std::uint64_t>(pointer);
}

}  // namespace

void prepareModuleLookup() noexcept {
    if (isPrepared.load(std::memory_order_acquire)) {
        return;
    }
    // Two threads may come here at once; both store the same.
    findObject.store(reinterpret_cast<FindObject>(dlsym(RTLD_DEFAULT, "_dl_find_object")),
                     std::memory_order_relaxed);
    programHeaders.store(getauxval(AT_PHDR), std::memory_order_relaxed);
    isPrepared.store(true, std::memory_order_release);
}

bool findCodeModule(std::uint64_t address, CodeModule& module) noexcept {
    const FindObject find = findObject.load(std::memory_order_relaxed);
    FoundObject found;
    if (find == nullptr || find(reinterpret_cast<void*>(address), &found) != 0) {
        return false;
    }
    module.begin = addressOf(found.mapStart);
    module.end = addressOf(found.mapEnd);
    module.unwindHeader = addressOf(found.unwindHeader);
    const std::uint64_t program = programHeaders.load(std::memory_order_relaxed);
    module.identity = program - module.begin < module.end - module.begin
                          ? module.begin
                          : moduleIdentity(module.begin, module.end, module.unwindHeader);
    return true;
}

ReadableRange readableSegment(const CodeModule& module, std::uint64_t address) noexcept {
    return mappedSegment(module.begin, module.end, address);
}

}  // namespace ThreadUtilities::platform
