// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/modules.h"

#include "scripted_platform/modules_script.h"

namespace ThreadUtilities::platform {

std::vector<LoadedModule> listModules(unsigned int processId) {
    ++scripted::moduleListings;
    return scripted::processModules[processId].modules;
}

std::optional<ModuleListVersion> moduleListVersion(unsigned int processId) noexcept {
    return scripted::processModules[processId].version;
}

bool isModulePathSeparator(WideChar unit) noexcept {
    return unit == u'/' || unit == u'\\';
}

}  // namespace ThreadUtilities::platform
