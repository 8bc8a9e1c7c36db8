# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

add_benchmark(sampling_benchmark SOURCES sampling_benchmark.cpp)
