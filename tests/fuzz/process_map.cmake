# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

add_fuzz_target(process_map_fuzz
    SOURCES process_map_fuzz.cpp
    OBJECTS tu_foundation tu_stack tu_platform_linux)
