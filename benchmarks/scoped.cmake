# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

add_benchmark(scoped_benchmark SOURCES scoped_benchmark.cpp)
