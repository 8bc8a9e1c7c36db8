# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

add_fuzz_target(unwind_tables_fuzz
    SOURCES unwind_tables_fuzz.cpp
    OBJECTS tu_foundation tu_stack_cfi tu_platform_linux)
