// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stack/module_manager.h"

#include <cstddef>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "foundation/guid_text.h"
#include "foundation/never_destroyed.h"
#include "platform/fork_child.h"

namespace ThreadUtilities {
namespace {

struct Instance {
    std::mutex mutex;
    std::shared_ptr<ModuleManager> manager;
};

NeverDestroyed<Instance> storage;

// Another thread may have held either mutex, or been in the middle of a renewal, when the process
// forked. The old manager is given up as it is; a lookup that finds none makes another.
platform::RestartInForkChild startWithoutManager([] { new (&storage.value) Instance; });

WideString upperCase(WideString text) {
    for (WideChar& unit : text) {
        if (unit >= 'a' && unit <= 'z') {
            unit = static_cast<WideChar>(unit - 'a' + 'A');
        }
    }
    return text;
}

WideString guidTextOf(const platform::LoadedModule& module) {
    return upperCase(
        vesko::guidToWideString(module.debugGuid ? vesko::guid(*module.debugGuid) : vesko::guid()));
}

std::vector<ModuleRecord> enumerateModules(unsigned int processId) {
    std::vector<platform::LoadedModule> loaded = platform::listModules(processId);
    // One block for the load information of all modules; each record shares the whole of it.
    const auto infos = std::make_shared<std::vector<ModuleInfo>>(loaded.size());
    std::vector<ModuleRecord> records;
    records.reserve(loaded.size());
    for (std::size_t index = 0; index < loaded.size(); ++index) {
        ModuleInfo& info = (*infos)[index];
        info = {loaded[index].imageBase, loaded[index].imageSize};
        records.push_back({std::move(loaded[index].path), guidTextOf(loaded[index]),
                           std::shared_ptr<const ModuleInfo>(infos, &info)});
    }
    return records;
}

/// Strictly inside: neither the first address nor the one behind the last.
bool contains(const ModuleInfo& info, unsigned long long address) {
    return info.lpBaseOfDll < address && address - info.lpBaseOfDll < info.SizeOfImage;
}

}  // namespace

std::shared_ptr<ModuleManager> ModuleManager::getInstance() {
    const std::lock_guard lock(storage.value.mutex);
    if (!storage.value.manager) {
        storage.value.manager = std::make_shared<ModuleManager>();
    }
    return storage.value.manager;
}

ModuleRecord ModuleManager::findModule(unsigned int forProcess, unsigned long long address) {
    const std::lock_guard lock(mutex);
    ModuleRecord found;
    if (forProcess == processId && (address == 0 || findCached(address, found))) {
        return found;
    }
    refresh(forProcess);
    findCached(address, found);
    return found;
}

void ModuleManager::refresh(unsigned int forProcess) {
    // The version first: whatever changes after it makes the next answer differ, so that a list
    // which missed the change is never taken for a current one.
    const auto current = platform::moduleListVersion(forProcess);
    if (forProcess == processId && current && current == version) {
        return;  // the list is what an enumeration would give
    }
    processId = forProcess;
    version.reset();
    modules.clear();
    modules = enumerateModules(forProcess);
    if (!modules.empty()) {
        version = current;  // a process without a module has not told them, and may the next time
    }
}

bool ModuleManager::findCached(unsigned long long address, ModuleRecord& out) const {
    for (const ModuleRecord& record : modules) {
        if (record.moduleInfo && contains(*record.moduleInfo, address)) {
            out = record;
            return true;
        }
    }
    return false;
}

}  // namespace ThreadUtilities
