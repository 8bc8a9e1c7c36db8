# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# The DLLs that the library's DLL needs, compared with those that are part of the system and those
# of the C++ run-time, which it must share with its program.
#
#   cmake -DOBJDUMP=<objdump> -DLIBRARY=<DLL> -P imports.cmake
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${OBJDUMP} -p "${LIBRARY}"
    OUTPUT_VARIABLE headers COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "DLL Name: [^\n]*" imports "${headers}")
list(TRANSFORM imports REPLACE "DLL Name: " "")
list(TRANSFORM imports TOLOWER)
list(SORT imports)
list(REMOVE_ITEM imports libwinpthread-1.dll)  # only some of the compilers use it directly
set(expected kernel32.dll libgcc_s_seh-1.dll libstdc++-6.dll msvcrt.dll ole32.dll shell32.dll)
if(NOT imports STREQUAL expected)
    message(FATAL_ERROR "needs ${imports}, not ${expected}")
endif()
