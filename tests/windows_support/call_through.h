// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

namespace ThreadUtilities::tests {

/// A frame of a DLL of the tests, between frames of the program: calls `function(argument)`.
/// Defined in the plugin; found with GetProcAddress under the name "callThrough".
using CallThrough = void (*)(void (*function)(void*), void* argument);

}  // namespace ThreadUtilities::tests
