# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

add_fuzz_target(expression_fuzz
    SOURCES expression_fuzz.cpp
    OBJECTS tu_foundation tu_stack_cfi tu_platform_linux)
