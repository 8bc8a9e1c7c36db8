# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# The walk is not part of the library's surface: this program is made of its objects.
# LLVM's unwinder has the same library name and can stand in its place, without the peer.
find_library(LIBUNWIND unwind)
find_path(LIBUNWIND_HEADER libunwind.h)
add_executable(unwind_benchmark unwind_benchmark.cpp deep_stack_with_frame_pointers.cpp
    deep_stack_without_frame_pointers.cpp
    $<TARGET_OBJECTS:thread_utilities_unwind> $<TARGET_OBJECTS:thread_utilities_unwind_own>
    $<TARGET_OBJECTS:thread_utilities_linux>
    $<TARGET_OBJECTS:thread_utilities_foundation>)
target_include_directories(unwind_benchmark PRIVATE "${PROJECT_SOURCE_DIR}/src"
    "${PROJECT_SOURCE_DIR}/include")
target_link_libraries(unwind_benchmark PRIVATE thread_utilities_options
    benchmark::benchmark_main ${CMAKE_DL_LIBS})
if(LIBUNWIND AND LIBUNWIND_HEADER)
    target_compile_definitions(unwind_benchmark PRIVATE HAVE_LIBUNWIND)
    target_link_libraries(unwind_benchmark PRIVATE "${LIBUNWIND}")
else()
    message(STATUS "unwind_benchmark has one peer less: libunwind is missing")
endif()
set_source_files_properties(deep_stack_with_frame_pointers.cpp unwind_benchmark.cpp
    PROPERTIES COMPILE_OPTIONS -fno-omit-frame-pointer)
set_source_files_properties(deep_stack_without_frame_pointers.cpp
    PROPERTIES COMPILE_OPTIONS -fomit-frame-pointer)
add_library(unwind_benchmark_plugin MODULE unwind_benchmark_plugin.cpp)
add_dependencies(unwind_benchmark unwind_benchmark_plugin)
target_compile_definitions(unwind_benchmark PRIVATE
    PLUGIN_PATH="$<TARGET_FILE:unwind_benchmark_plugin>")
