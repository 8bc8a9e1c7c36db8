# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

add_fuzz_target(text_conversion_fuzz
    SOURCES text_conversion_fuzz.cpp
    OBJECTS thread_utilities_foundation thread_utilities_scripted_platform)
