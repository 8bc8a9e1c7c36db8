# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

add_fuzz_target(elf_image_fuzz
    SOURCES elf_image_fuzz.cpp
    OBJECTS thread_utilities_foundation thread_utilities_stack thread_utilities_linux)
