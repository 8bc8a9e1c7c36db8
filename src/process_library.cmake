# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# ThreadUtilitiesProcess, a library beside the other one, which stays free of it. The shared one
# stands alone. The archive takes what both are made of from the other archive, so that a program
# may have both.
set(objects $<TARGET_OBJECTS:thread_utilities_process>)
if(BUILD_SHARED_LIBS)
    add_library(ThreadUtilitiesProcess ${objects}
        $<TARGET_OBJECTS:thread_utilities_process_shared_parts>
        $<TARGET_OBJECTS:thread_utilities_unwind>)
    add_library(ThreadUtilities::Process_shared ALIAS ThreadUtilitiesProcess)
else()
    set(whole_object "${CMAKE_CURRENT_BINARY_DIR}/ThreadUtilitiesProcess$<CONFIG>.o")
    add_custom_command(OUTPUT "${whole_object}"
        COMMAND ${CMAKE_CXX_COMPILER} -r -nostdlib -o "${whole_object}" ${objects}
        DEPENDS ${objects} COMMAND_EXPAND_LISTS VERBATIM)
    add_library(ThreadUtilitiesProcess "${whole_object}")
    add_dependencies(ThreadUtilitiesProcess thread_utilities_process)
    target_link_libraries(ThreadUtilitiesProcess INTERFACE ThreadUtilities)
    add_library(ThreadUtilities::Process_static ALIAS ThreadUtilitiesProcess)
endif()
add_library(ThreadUtilities::Process ALIAS ThreadUtilitiesProcess)
set_up_library(ThreadUtilitiesProcess process/exports.map)
