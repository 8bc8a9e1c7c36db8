// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

namespace ThreadUtilities {

/// Whether the test is built with a sanitizer that changes what some tests look at.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool underAddressSanitizer = true;
#else
constexpr bool underAddressSanitizer = false;
#endif
#if defined(__SANITIZE_THREAD__)
constexpr bool underThreadSanitizer = true;
#else
constexpr bool underThreadSanitizer = false;
#endif

/// Why blocked threads are not always captured untouched there.
constexpr auto framePointersAreKept =
    "AddressSanitizer keeps frame pointers, which the look at a blocked thread does not tell";
constexpr auto threadsMustSayThatTheyEnd =
    "AddressSanitizer's state of a thread that ends by a bare system call stands in the way of the "
    "next thread on its stack";
constexpr auto copiesMayHang = "the sanitizer's own locks may stay locked in a fork child";

}  // namespace ThreadUtilities
