# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

if(NOT WIN32)
    add_benchmark(threads_benchmark SOURCES threads_benchmark.cpp)
endif()
