// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/system_library.h"

#include <dlfcn.h>
#include <gnu/lib-names.h>
#include <link.h>

#include <string_view>

#include "platform/text.h"

namespace ThreadUtilities::platform {
namespace {

/// Where the loader found the C library of this process; empty when it does not say. Asked of the
/// loaded library itself: the address of one of its functions may, in a program that is not
/// position-independent, be an entry of the program's own procedure linkage table.
std::string_view runningCLibraryPath() {
    void* const library = dlopen(LIBC_SO, RTLD_LAZY | RTLD_NOLOAD);
    if (library == nullptr) {
        return {};
    }
    link_map* map = nullptr;
    const bool known = dlinfo(library, RTLD_DI_LINKMAP, static_cast<void*>(&map)) == 0;
    // The map outlives this reference, because the program itself holds the C library.
    dlclose(library);
    return known && map->l_name != nullptr ? std::string_view(map->l_name) : std::string_view();
}

}  // namespace

SystemFolder systemLibraryFolder() {
    const std::string_view path = runningCLibraryPath();
    const auto separator = path.rfind('/');
    if (separator == path.npos) {
        return {};
    }
    return {utf8ToWide(path.substr(0, separator + 1)), u'/', true};
}

bool isAbsolutePath(WideStringView path) noexcept {
    return !path.empty() && path.front() == u'/';
}

LibraryHandle openLibrary(const WideString& fullPath) {
    return dlopen(wideToUtf8(fullPath).c_str(), RTLD_NOW | RTLD_LOCAL);
}

void* findEntryPoint(LibraryHandle library, const char* name) {
    return dlsym(library, name);
}

void closeLibrary(LibraryHandle library) {
    dlclose(library);
}

}  // namespace ThreadUtilities::platform
