# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# A fork child finds the guard of a static object in a function closed for ever when another thread
# was just making the object. Therefore the library has none that is made at run time.
#
#   cmake -DNM=<nm> -DLIBRARY=<shared library> -P function_statics.cmake
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND "${NM}" "${LIBRARY}" OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
if(NOT symbols MATCHES " [bdt] [^\n]*ThreadUtilities")
    message(FATAL_ERROR "${LIBRARY} does not show its own names")
endif()
string(REGEX MATCHALL "[^\n ]*_ZGV[^\n]*" guards "${symbols}")
if(guards)
    list(JOIN guards "\n  " guards)
    message(FATAL_ERROR "Guards of static objects:\n  ${guards}")
endif()
