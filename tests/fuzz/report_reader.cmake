# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

if(TARGET thread_utilities_companion)
    add_fuzz_target(report_reader_fuzz
        SOURCES report_reader_fuzz.cpp
        LIBRARIES thread_utilities_companion)
endif()
