# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# Configures the tree as on Windows itself: for Windows, and not as a cross build. Nothing is built,
# so the test framework only has to be found.
#
#   cmake -DROOT=<tree> -DGENERATOR=<generator> -DTOOLCHAIN=<file> -DSCRATCH=<folder>
#       -P configure_natively.cmake
cmake_minimum_required(VERSION 3.25)

file(REMOVE_RECURSE "${SCRATCH}")
file(WRITE "${SCRATCH}/native.cmake" "set(CMAKE_CROSSCOMPILING FALSE)\n")
file(WRITE "${SCRATCH}/GTestConfig.cmake" "
foreach(library gtest gtest_main gmock gmock_main)
    add_library(GTest::\${library} INTERFACE IMPORTED)
endforeach()
")
execute_process(COMMAND ${CMAKE_COMMAND} -S "${ROOT}" -B "${SCRATCH}/build" -G "${GENERATOR}"
    -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} "-DGTest_DIR=${SCRATCH}"
    "-DCMAKE_PROJECT_ThreadUtilities_INCLUDE=${SCRATCH}/native.cmake"
    COMMAND_ERROR_IS_FATAL ANY)
if(NOT EXISTS "${SCRATCH}/build/tests/system/windows/CTestTestfile.cmake")
    message(FATAL_ERROR "the tests were left out")
endif()
