// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "scoped_name/type_name.h"

#include <string>
#include <typeinfo>

// The header of the Itanium C++ ABI, whose type names are mangled: a matter of the compiler, which
// is the same one on several systems. Without it, names are readable as they are.
#if __has_include(<cxxabi.h>)
#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#endif

namespace ThreadUtilities {

std::string readableTypeName(const std::type_info& type) {
#if __has_include(<cxxabi.h>)
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> name(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
    if (name != nullptr) {
        return name.get();
    }
#endif
    return type.name();
}

}  // namespace ThreadUtilities
