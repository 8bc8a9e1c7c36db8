# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

add_fuzz_target(cfa_program_fuzz
    SOURCES cfa_program_fuzz.cpp
    OBJECTS tu_foundation tu_stack_cfi tu_platform_linux)
