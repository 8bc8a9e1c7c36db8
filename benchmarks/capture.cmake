# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# Made of the library's objects, because it measures parts that do not leave the library.
find_library(PROFILER_LIBRARY profiler)
add_executable(capture_benchmark capture_benchmark.cpp capture_targets.cpp
    deep_stack_without_frame_pointers.cpp
    $<TARGET_OBJECTS:thread_utilities_unwind> $<TARGET_OBJECTS:thread_utilities_unwind_own>
    $<TARGET_OBJECTS:thread_utilities_stack_capture>
    $<TARGET_OBJECTS:thread_utilities_stack_session>
    $<TARGET_OBJECTS:thread_utilities_linux>
    $<TARGET_OBJECTS:thread_utilities_linux_start>
    $<TARGET_OBJECTS:thread_utilities_threads> $<TARGET_OBJECTS:thread_utilities_foundation>)
target_include_directories(capture_benchmark PRIVATE "${PROJECT_SOURCE_DIR}/src"
    "${PROJECT_SOURCE_DIR}/include")
target_link_libraries(capture_benchmark PRIVATE thread_utilities_options
    benchmark::benchmark_main ${CMAKE_DL_LIBS})
if(PROFILER_LIBRARY)
    target_compile_definitions(capture_benchmark PRIVATE HAVE_GPERFTOOLS)
    target_link_libraries(capture_benchmark PRIVATE "${PROFILER_LIBRARY}")
endif()
