# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

if(NOT WIN32)
    add_benchmark(whole_process_benchmark SOURCES whole_process_benchmark.cpp)
endif()
