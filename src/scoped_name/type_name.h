// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <typeinfo>

namespace ThreadUtilities {

/// The type's name as it is written in C++, qualified; without a class key where the compiler's
/// own form has none. The compiler's form as it stands when it cannot be read.
std::string readableTypeName(const std::type_info& type);

}  // namespace ThreadUtilities
