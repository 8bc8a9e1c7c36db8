# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# Module lists are not part of the library's surface: this program is made of its objects.
add_library(modules_benchmark_plugin MODULE modules_benchmark_plugin.cpp)
add_executable(modules_benchmark modules_benchmark.cpp)
target_include_directories(modules_benchmark PRIVATE "${PROJECT_SOURCE_DIR}/src")
target_compile_definitions(modules_benchmark PRIVATE
    THREAD_UTILITIES_STATIC MODULES_BENCHMARK_PLUGIN="$<TARGET_FILE:modules_benchmark_plugin>")
target_link_libraries(modules_benchmark PRIVATE thread_utilities_options
    thread_utilities_whole_library benchmark::benchmark)
target_include_directories(modules_benchmark PRIVATE "${PROJECT_SOURCE_DIR}/include")
add_dependencies(modules_benchmark modules_benchmark_plugin)
