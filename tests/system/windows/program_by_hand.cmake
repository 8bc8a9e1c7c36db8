# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# Builds the program of tests/consumer without CMake's package: with the flags that pkg-config tells
# of an installed library.
#
#   cmake -DPACKAGE=<folder of the installation> -DCOMPILER=<compiler> -DOPTIONS=<of the compiler>
#       -DSOURCE=<file> -DPROGRAM=<file> -P program_by_hand.cmake
cmake_minimum_required(VERSION 3.25)

find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_LIBDIR} "${PACKAGE}/lib/pkgconfig")
execute_process(COMMAND "${PKG_CONFIG}" --cflags --libs ThreadUtilities
    OUTPUT_VARIABLE flags COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(flags UNIX_COMMAND "${flags}")
separate_arguments(OPTIONS UNIX_COMMAND "${OPTIONS}")
execute_process(COMMAND "${COMPILER}" -std=c++20 "${SOURCE}" ${flags} ${OPTIONS} -o "${PROGRAM}"
    COMMAND_ERROR_IS_FATAL ANY)
