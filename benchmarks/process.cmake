# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

if(WIN32)
    return()
endif()
add_executable(process_benchmark process_benchmark.cpp process_target.cpp)
target_link_libraries(process_benchmark PRIVATE thread_utilities_options ThreadUtilities::Process
    benchmark::benchmark)
find_library(LIBDW dw)
if(LIBDW)
    target_sources(process_benchmark PRIVATE process_peer_libdw.cpp)
    target_compile_definitions(process_benchmark PRIVATE HAVE_LIBDW)
    target_link_libraries(process_benchmark PRIVATE "${LIBDW}")
endif()
find_library(LIBUNWIND unwind)
find_library(LIBUNWIND_GENERIC unwind-x86_64)
find_library(LIBUNWIND_PTRACE unwind-ptrace)
if(LIBUNWIND AND LIBUNWIND_GENERIC AND LIBUNWIND_PTRACE)
    target_sources(process_benchmark PRIVATE process_peer_libunwind.cpp)
    target_compile_definitions(process_benchmark PRIVATE HAVE_LIBUNWIND)
    target_link_libraries(process_benchmark PRIVATE
        "${LIBUNWIND_PTRACE}" "${LIBUNWIND_GENERIC}" "${LIBUNWIND}")
endif()
