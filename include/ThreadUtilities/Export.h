// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// The one place that knows how a symbol leaves the library. Every exported name carries
/// THREAD_UTILITIES_API; THREAD_UTILITIES_STATIC is set for users of the static library.

#if defined(THREAD_UTILITIES_STATIC)
#define THREAD_UTILITIES_API
#elif defined(_WIN32)
#if defined(THREAD_UTILITIES_BUILDING)
#define THREAD_UTILITIES_API __declspec(dllexport)
#else
#define THREAD_UTILITIES_API __declspec(dllimport)
#endif
#else
#define THREAD_UTILITIES_API __attribute__((visibility("default")))
#endif
