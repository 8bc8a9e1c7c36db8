# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

add_fuzz_target(elf_image_fuzz
    SOURCES elf_image_fuzz.cpp
    OBJECTS tu_foundation tu_stack tu_platform_linux)
