// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/modules.h"

#include <optional>
#include <utility>
#include <vector>

#include "linux/modules/own_modules.h"
#include "linux/modules/process_modules.h"
#include "platform/current.h"

namespace ThreadUtilities::platform {

std::vector<LoadedModule> listModules(unsigned int processId) {
    if (processId == currentProcessId()) {
        if (auto modules = listOwnModules()) {
            return std::move(*modules);
        }
    }
    return listProcessModules(processId);
}

std::optional<ModuleListVersion> moduleListVersion(unsigned int processId) noexcept {
    return processId == currentProcessId() ? ownModuleListVersion() : std::nullopt;
}

bool isModulePathSeparator(WideChar unit) noexcept {
    return unit == u'/' || unit == u'\\';
}

}  // namespace ThreadUtilities::platform
