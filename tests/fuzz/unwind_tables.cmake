# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

add_fuzz_target(unwind_tables_fuzz
    SOURCES unwind_tables_fuzz.cpp
    OBJECTS thread_utilities_foundation thread_utilities_unwind thread_utilities_unwind_own
        thread_utilities_linux thread_utilities_process)
