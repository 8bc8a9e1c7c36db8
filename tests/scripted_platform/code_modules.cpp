#include "platform/code_modules.h"

#include <vector>

#include "scripted_platform/code_modules_script.h"

namespace ThreadUtilities {
namespace {

std::vector<platform::CodeModule> modules;

}  // namespace

namespace scripted {
void addCodeModule(const platform::CodeModule& module) {
    modules.push_back(module);
}
void removeAllCodeModules() {
    modules.clear();
}
}  // namespace scripted

namespace platform {

void prepareModuleLookup() noexcept {}

bool findCodeModule(std::uint64_t address, bool, CodeModule& module) noexcept {
    for (const CodeModule& known : modules) {
        if (address - known.begin < known.size) {
            module = known;
            return true;
        }
    }
    return false;
}

ReadableRange readableSegment(const CodeModule& module, std::uint64_t address) noexcept {
    return address - module.begin < module.size
               ? ReadableRange{module.begin, module.begin + module.size}
               : ReadableRange{};
}

}  // namespace platform
}  // namespace ThreadUtilities
