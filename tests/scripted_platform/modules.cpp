#include "platform/modules.h"

#include <map>
#include <mutex>

#include "scripted_platform/modules_script.h"

namespace ThreadUtilities {
namespace {

struct Process {
    std::vector<platform::LoadedModule> modules;
    std::optional<platform::ModuleListVersion> version;
};

std::mutex mutex;
std::map<unsigned int, Process> processes;
int listings = 0;

}  // namespace

namespace scripted {

void setModules(unsigned int processId, std::vector<platform::LoadedModule> modules,
                std::optional<platform::ModuleListVersion> version) {
    const std::lock_guard lock(mutex);
    processes[processId] = {std::move(modules), version};
}

int moduleListings() {
    const std::lock_guard lock(mutex);
    return listings;
}

void resetModules() {
    const std::lock_guard lock(mutex);
    processes.clear();
    listings = 0;
}

}  // namespace scripted

namespace platform {

std::vector<LoadedModule> listModules(unsigned int processId) {
    const std::lock_guard lock(mutex);
    ++listings;
    const auto process = processes.find(processId);
    return process == processes.end() ? std::vector<LoadedModule>() : process->second.modules;
}

std::optional<ModuleListVersion> moduleListVersion(unsigned int processId) noexcept {
    const std::lock_guard lock(mutex);
    const auto process = processes.find(processId);
    return process == processes.end() ? std::nullopt : process->second.version;
}

bool isModulePathSeparator(WideChar unit) noexcept {
    return unit == u'/' || unit == u'\\';
}

}  // namespace platform
}  // namespace ThreadUtilities
