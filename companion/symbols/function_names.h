// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <string_view>

namespace ThreadUtilities::companion {

/// As the C++ compilers' names are written in source; any other name as it is.
std::string demangle(const char* name);

/// Without template arguments: `map<int, int>::find` is `map::find`.
std::string withoutTemplateArguments(std::string_view name);

}  // namespace ThreadUtilities::companion
