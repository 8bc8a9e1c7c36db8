// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <version>

namespace ThreadUtilities {

/// Whether `pthread_exit` and cancellation may pass a frame with a destructor. The C library
/// unwinds by GCC's unwinder; libc++'s personality routine hands that one's context to LLVM's, and
/// crashes, in any program.
#if defined(_LIBCPP_VERSION)
constexpr bool threadsMayUnwind = false;
#else
constexpr bool threadsMayUnwind = true;
#endif
constexpr auto unwindersDisagree =
    "libc++ and the C library unwind a thread's end by two unwinders";

}  // namespace ThreadUtilities
