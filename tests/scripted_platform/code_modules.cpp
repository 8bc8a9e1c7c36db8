// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/code_modules.h"

#include "scripted_platform/code_modules_script.h"

namespace ThreadUtilities::platform {

void prepareModuleLookup() noexcept {}

bool findCodeModule(std::uint64_t address, CodeModule& module, bool) noexcept {
    for (const CodeModule& known : scripted::codeModules) {
        if (address - known.begin < known.size) {
            module = known;
            return true;
        }
    }
    return false;
}

// Every module of a script can be replaced by another.
std::uint64_t permanentIdentity() noexcept {
    return 0;
}

ReadableRange readableSegment(const CodeModule& module, std::uint64_t address) noexcept {
    return address - module.begin < module.size
               ? ReadableRange{module.begin, module.begin + module.size}
               : ReadableRange{};
}

}  // namespace ThreadUtilities::platform
