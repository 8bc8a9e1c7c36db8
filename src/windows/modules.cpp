// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/modules.h"

#include <windows.h>

#include <psapi.h>

#include <array>
#include <optional>
#include <utility>

#include "windows/handle.h"
#include "windows/module_handles.h"
#include "windows/symbol_index.h"

namespace ThreadUtilities::platform {
namespace {

static_assert((PROCESS_QUERY_INFORMATION | PROCESS_VM_READ) == 0x410);
static_assert(sizeof(MODULEINFO) == 24);

std::vector<HMODULE> moduleHandles(HANDLE process) {
    return askForHandles<HMODULE>([process](HMODULE* handles, DWORD size, std::uint32_t& needed) {
        DWORD bytesNeeded = 0;
        const BOOL isListed = K32EnumProcessModules(process, handles, size, &bytesNeeded);
        needed = bytesNeeded;
        return isListed != 0;
    });
}

std::optional<LoadedModule> describeModule(HANDLE process, HMODULE handle) {
    std::array<wchar_t, MAX_PATH + 1> path{};
    if (K32GetModuleFileNameExW(process, handle, path.data(), path.size()) == 0) {
        return std::nullopt;
    }
    // The service may not terminate a path that fills the buffer.
    path.back() = L'\0';
    LoadedModule module;
    module.path = path.data();
    module.debugGuid = symbolIndexGuid(path.data());
    MODULEINFO range{};
    if (K32GetModuleInformation(process, handle, &range, sizeof(range)) == 0) {
        return std::nullopt;
    }
    module.imageBase = reinterpret_cast<std::uint64_t>(range.lpBaseOfDll);
    module.imageSize = range.SizeOfImage;
    return module;
}

}  // namespace

std::vector<LoadedModule> listModules(unsigned int processId) {
    const Handle process(
        OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, processId));
    if (!process) {
        return {};
    }
    std::vector<LoadedModule> modules;
    for (HMODULE handle : moduleHandles(process.get())) {
        if (auto module = describeModule(process.get(), handle)) {
            modules.push_back(std::move(*module));
        }
    }
    return modules;
}

// The loader counts its changes where no program is told to look.
std::optional<ModuleListVersion> moduleListVersion(unsigned int) noexcept {
    return std::nullopt;
}

bool isModulePathSeparator(WideChar unit) noexcept {
    return unit == L'\\';
}

}  // namespace ThreadUtilities::platform
