// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <dlfcn.h>
#include <link.h>

namespace ThreadUtilities::platform {
namespace {

// A plug-in may hold this library, linked in statically, and be closed again. Handlers and exit
// destructors of the library can be due long after that, on threads that know nothing of it;
// therefore the object that contains this code stays for as long as the process. The shared library
// is built so, and a program stays anyway. The loader knows an object by the name under which it
// keeps it, so that no file is looked at.
__attribute__((constructor(101))) void keepOwnObject() {
    Dl_info info{};
    void* found = nullptr;
    if (dladdr1(reinterpret_cast<const void*>(&keepOwnObject), &info, &found, RTLD_DL_LINKMAP) !=
            0 &&
        found != nullptr) {
        const char* const name = static_cast<const link_map*>(found)->l_name;
        if (name != nullptr && *name != '\0') {
            dlopen(name, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
        }
    }
}

}  // namespace
}  // namespace ThreadUtilities::platform
