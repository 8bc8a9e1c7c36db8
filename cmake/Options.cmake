# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# Usage requirements shared by every target of this project; nothing here is global.

# The folder of the backend; the logic itself never asks which system it is.
if(WIN32)
    set(THREAD_UTILITIES_BACKEND windows)
else()
    set(THREAD_UTILITIES_BACKEND linux)
endif()

add_library(thread_utilities_options INTERFACE)
target_compile_features(thread_utilities_options INTERFACE cxx_std_20)
target_compile_options(thread_utilities_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wnon-virtual-dtor
    # Wrong about texts that are put together (GCC bug 105651), mended in version 13.
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>
    $<$<BOOL:${THREAD_UTILITIES_WERROR}>:-Werror>)

# Code of the library itself: position independent, and only marked names leave it.
add_library(thread_utilities_build INTERFACE)
target_link_libraries(thread_utilities_build INTERFACE thread_utilities_options)
target_include_directories(thread_utilities_build INTERFACE
    "${PROJECT_SOURCE_DIR}/src" "${PROJECT_SOURCE_DIR}/include")
target_compile_options(thread_utilities_build INTERFACE
    -fPIC -fvisibility=hidden -fvisibility-inlines-hidden
    # Whatever the including project leaves out of its own code.
    -fexceptions -frtti
    # The archive's one object is for any compiler's programs, and is made without a compiler's help.
    $<$<NOT:$<BOOL:${BUILD_SHARED_LIBS}>>:-fno-lto>)
target_compile_definitions(thread_utilities_build INTERFACE THREAD_UTILITIES_BUILDING
    $<$<NOT:$<BOOL:${BUILD_SHARED_LIBS}>>:THREAD_UTILITIES_STATIC>)

# add_family(<name> [VARIANT] <source>...): one layer of the library, or a part of one, as an object
# library named thread_utilities_<name>. A variant is not part of every form of the library.
function(add_family name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "VARIANT" "" "")
    add_library(thread_utilities_${name} OBJECT ${arg_UNPARSED_ARGUMENTS})
    target_link_libraries(thread_utilities_${name} PRIVATE thread_utilities_build)
    # Each source has its own unnamed namespace, whatever the including project does with its own.
    set_target_properties(thread_utilities_${name} PROPERTIES UNITY_BUILD OFF)
    if(NOT arg_VARIANT)
        set_property(GLOBAL APPEND PROPERTY THREAD_UTILITIES_FAMILIES thread_utilities_${name})
    endif()
endfunction()

# The program beside the library. Where a package is missing that it stands on, its folder says so
# and leaves it out.
option(THREAD_UTILITIES_COMPANION "Build the program thread-utilities" ${PROJECT_IS_TOP_LEVEL})
