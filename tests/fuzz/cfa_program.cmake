# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

add_fuzz_target(cfa_program_fuzz
    SOURCES cfa_program_fuzz.cpp
    OBJECTS thread_utilities_foundation thread_utilities_unwind thread_utilities_unwind_own
        thread_utilities_linux)
