# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

add_fuzz_target(process_map_fuzz
    SOURCES process_map_fuzz.cpp
    OBJECTS thread_utilities_foundation thread_utilities_stack thread_utilities_linux)
