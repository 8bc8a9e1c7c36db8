# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# Compares the GUID that frames of the DLL carry in a report with that of the DLL's PDB, by which a
# symbol server files it.
#
#   cmake -DPDBUTIL=<llvm-pdbutil> -DPDB=<file> -P pdb_guid.cmake -- <program>...
cmake_minimum_required(VERSION 3.25)

set(program)
foreach(index RANGE 5 ${CMAKE_ARGC})
    if(index LESS CMAKE_ARGC)
        list(APPEND program "${CMAKE_ARGV${index}}")
    endif()
endforeach()
list(REMOVE_ITEM program "--")

execute_process(COMMAND ${PDBUTIL} dump -summary "${PDB}"
    OUTPUT_VARIABLE summary COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCH "GUID: ({[^}]*})" found "${summary}")
set(guid "${CMAKE_MATCH_1}")
execute_process(COMMAND ${program} OUTPUT_VARIABLE report COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCH "ThreadUtilities[.]dll[+]0x[0-9A-F]+({[^}]*})" frame "${report}")
if(NOT guid OR NOT CMAKE_MATCH_1 STREQUAL guid)
    message(FATAL_ERROR "a frame is ${frame}, the PDB has ${guid}\n${report}")
endif()
