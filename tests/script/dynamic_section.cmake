# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# Checks what the loader is told of the library: which libraries it needs, its name, its flags.
#
#   cmake -DREADELF=<readelf> -DLIBRARY=<shared library> -DNAME=<its name> -P dynamic_section.cmake
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${READELF} --dynamic --wide "${LIBRARY}"
    OUTPUT_VARIABLE dynamic COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${READELF} --program-headers --wide "${LIBRARY}"
    OUTPUT_VARIABLE segments COMMAND_ERROR_IS_FATAL ANY)

# The C library and whichever C++ standard library it was built with.
set(allowed libm.so.6 libc.so.6 ld-linux-x86-64.so.2 libgcc_s.so.1 libstdc++.so.6
    libc++.so.1 libc++abi.so.1 libunwind.so.1)
string(REGEX MATCHALL "\\(NEEDED\\)[^\n]*\\[[^]]*\\]" needed "${dynamic}")
list(LENGTH needed count)
if(count EQUAL 0)
    message(FATAL_ERROR "no needed libraries were read")
endif()
foreach(entry IN LISTS needed)
    string(REGEX REPLACE ".*\\[([^]]*)\\]" "\\1" library "${entry}")
    if(NOT library IN_LIST allowed)
        message(FATAL_ERROR "the library needs ${library}")
    endif()
endforeach()

string(REPLACE "." "\\." name "${NAME}")
foreach(expected "\\(SONAME\\)[^\n]*\\[${name}\\]" "NODELETE" "NOW")
    if(NOT dynamic MATCHES "${expected}")
        message(FATAL_ERROR "the dynamic section lacks ${expected}:\n${dynamic}")
    endif()
endforeach()
if(NOT segments MATCHES "GNU_RELRO")
    message(FATAL_ERROR "no part of the data becomes read-only after relocation")
endif()
if(segments MATCHES "GNU_STACK[^\n]*RWE")
    message(FATAL_ERROR "the library asks for an executable stack")
endif()
