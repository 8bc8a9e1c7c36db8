# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# Tests of a build for Windows: run there, or under Wine by a cross build.
#
# One ctest entry is one program, not one test: starting a process costs more than most tests.

# The folders of the C++ run-time, which the library and its programs share. On Windows itself it
# lies beside the compiler.
set(run_time_folders)
foreach(library libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
    find_file(run_time_library ${library} PATHS ${CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES}
        NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH NO_CACHE)
    if(run_time_library)
        cmake_path(GET run_time_library PARENT_PATH folder)
        list(APPEND run_time_folders "${folder}")
    endif()
    unset(run_time_library)
endforeach()
list(REMOVE_DUPLICATES run_time_folders)

# run_windows_program: the words that come before a program in a command.
set(run_windows_program)
if(CMAKE_CROSSCOMPILING)
    set(run_windows_program
        "${PROJECT_SOURCE_DIR}/tools/run-under-wine" "${CMAKE_BINARY_DIR}/wine")
endif()

# runs_windows_program(<test>): its command runs a program, which must find the C++ run-time.
function(runs_windows_program test)
    set_tests_properties(${test} PROPERTIES TIMEOUT ${THREAD_UTILITIES_TEST_TIMEOUT})
    if(CMAKE_CROSSCOMPILING)
        list(TRANSFORM run_time_folders PREPEND "Z:" OUTPUT_VARIABLE wine_path)
        list(JOIN wine_path "\\;" wine_path)
        set_tests_properties(${test} PROPERTIES
            FIXTURES_REQUIRED wine ENVIRONMENT "WINEPATH=${wine_path}")
    else()
        list(TRANSFORM run_time_folders PREPEND "PATH=path_list_prepend:" OUTPUT_VARIABLE path)
        set_tests_properties(${test} PROPERTIES ENVIRONMENT_MODIFICATION "${path}")
    endif()
endfunction()

# add_windows_test(<name> COMMAND <program> [argument]...): a test of its own.
function(add_windows_test name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "COMMAND")
    add_test(NAME ${name} COMMAND ${run_windows_program} ${arg_COMMAND})
    runs_windows_program(${name})
endfunction()

function(register_test_program name)
    add_windows_test(${name} COMMAND $<TARGET_FILE:${name}>)
endfunction()

if(CMAKE_CROSSCOMPILING)
    # Wine's own index service is a stub that ends the process, so the prefix gets a stand-in.
    add_test(NAME WinePrefixIsMade
        COMMAND ${run_windows_program} --prepare $<TARGET_FILE:symbol_server_stand_in>)
    add_test(NAME WineServerIsEnded COMMAND ${run_windows_program} --finish)
    set_tests_properties(WinePrefixIsMade PROPERTIES FIXTURES_SETUP wine TIMEOUT 300)
    set_tests_properties(WineServerIsEnded PROPERTIES FIXTURES_CLEANUP wine TIMEOUT 60)
endif()
