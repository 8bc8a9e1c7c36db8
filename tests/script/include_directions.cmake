# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# Checks which files may include which, and that the logic never asks which system it is.
#
#   cmake -DROOT=<source folder> -P include_directions.cmake
#
# sampling > stack > threads > foundation; stack > unwind; scoped_name > external_input and threads;
# process, which exists on one system and may ask it anything, > unwind, linux, foundation.
# Below all of them: the interface headers src/platform/*.h. A backend includes interfaces,
# foundation and headers of its system; the one whose system has an unwinder, what it defines of
# unwind.

cmake_minimum_required(VERSION 3.25)

set(below_foundation)
set(below_threads foundation)
set(below_external_input foundation)
set(below_scoped_name external_input threads foundation)
set(below_unwind foundation)
set(below_stack unwind threads foundation)
set(below_sampling stack threads foundation)
set(below_process unwind linux foundation)
set(backends linux windows process)
set(below_linux foundation)
set(below_windows unwind foundation)

set(public_Threads threads)
set(public_StackTrace stack)
set(public_ProcessCapture process)
set(public_Sampling sampling)
set(public_ScopedThreadName scoped_name)
set(public_external_input external_input)
set(public_source_location external_input)
# Vocabulary of every family.
set(public_Export foundation)
set(public_guid foundation)
set(public_handle foundation)

set(failures 0)
macro(refuse why)
    message("${file}: ${why}")
    math(EXPR failures "${failures} + 1")
endmacro()

# The family of a header or source, its path written from src/ or include/.
function(family_of path result)
    set(family "unknown")
    if(path MATCHES "^platform/[^/]+$")
        set(family "interface")
    elseif(path MATCHES "^(ThreadUtilities|vesko)/([^/.]+)\\.h$")
        if(DEFINED public_${CMAKE_MATCH_2})
            set(family "${public_${CMAKE_MATCH_2}}")
        endif()
    elseif(path MATCHES "^([^/]+)/")
        set(family "${CMAKE_MATCH_1}")
    endif()
    set(${result} "${family}" PARENT_SCOPE)
endfunction()

# check_one(<family of the file> <included path> <"ours" or "system">)
macro(check_one family path kind)
    if("${kind}" STREQUAL "ours")
        family_of("${path}" included)
        set(allowed interface "${family}" ${below_${family}})
        if(NOT "${included}" IN_LIST allowed)
            refuse("${family} must not include ${path} (${included})")
        endif()
    elseif(NOT "${family}" IN_LIST backends AND "${path}" MATCHES "[./]"
            AND NOT "${path}" STREQUAL "cxxabi.h")  # the compiler's, the same on every system
        # The standard library's headers have neither a suffix nor a folder.
        refuse("only a backend may include <${path}>")
    endif()
endmacro()

file(GLOB_RECURSE files RELATIVE "${ROOT}" "${ROOT}/src/*.h" "${ROOT}/src/*.cpp"
    "${ROOT}/include/*.h")
foreach(file IN LISTS files)
    string(REGEX REPLACE "^(src|include)/" "" own_path "${file}")
    if(own_path STREQUAL "ThreadUtilities/ThreadUtilities.h")
        continue()  # includes all public headers; nothing may include it
    endif()
    family_of("${own_path}" family)
    if(family STREQUAL "unknown" OR (NOT family STREQUAL "interface"
            AND NOT DEFINED below_${family} AND NOT family STREQUAL "foundation"))
        refuse("belongs to no family")
        continue()
    endif()

    file(STRINGS "${ROOT}/${file}" directives REGEX "^[ \t]*#")
    foreach(directive IN LISTS directives)
        if(directive MATCHES "#[ \t]*include[ \t]*\"([^\"]+)\"")
            check_one("${family}" "${CMAKE_MATCH_1}" ours)
        elseif(directive MATCHES "#[ \t]*include[ \t]*<((ThreadUtilities|vesko)/[^>]+)>")
            check_one("${family}" "${CMAKE_MATCH_1}" ours)
        elseif(directive MATCHES "#[ \t]*include[ \t]*<([^>]+)>")
            check_one("${family}" "${CMAKE_MATCH_1}" system)
        elseif(directive MATCHES "#[ \t]*(if|elif)" AND NOT family IN_LIST backends
                AND NOT own_path STREQUAL "ThreadUtilities/Export.h"
                AND directive MATCHES "WIN32|WIN64|MINGW|_MSC_VER|linux|unix|GLIBC|APPLE|__ELF__")
            refuse("the logic must not ask for the system: ${directive}")
        endif()
    endforeach()
endforeach()

list(LENGTH files count)
if(count LESS 10)
    message(FATAL_ERROR "found only ${count} files under ${ROOT}")
endif()
if(failures GREATER 0)
    message(FATAL_ERROR "${failures} includes go the wrong way")
endif()
message("${count} files include only what they may")
