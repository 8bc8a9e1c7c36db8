# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# The walk is not part of the library's surface: this program is made of its objects.
find_library(LIBUNWIND unwind)
if(NOT LIBUNWIND)
    message(STATUS "unwind_benchmark is left out: it needs libunwind")
    return()
endif()
add_executable(unwind_benchmark unwind_benchmark.cpp deep_stack_with_frame_pointers.cpp
    deep_stack_without_frame_pointers.cpp
    $<TARGET_OBJECTS:thread_utilities_stack_cfi> $<TARGET_OBJECTS:thread_utilities_platform_linux>
    $<TARGET_OBJECTS:thread_utilities_foundation>)
target_include_directories(unwind_benchmark PRIVATE "${PROJECT_SOURCE_DIR}/src"
    "${PROJECT_SOURCE_DIR}/include")
target_link_libraries(unwind_benchmark PRIVATE thread_utilities_options
    benchmark::benchmark_main "${LIBUNWIND}" ${CMAKE_DL_LIBS})
set_source_files_properties(deep_stack_with_frame_pointers.cpp unwind_benchmark.cpp
    PROPERTIES COMPILE_OPTIONS -fno-omit-frame-pointer)
set_source_files_properties(deep_stack_without_frame_pointers.cpp
    PROPERTIES COMPILE_OPTIONS -fomit-frame-pointer)
