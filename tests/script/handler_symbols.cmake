# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# What runs while a thread is stopped, in a signal handler on it, calls nothing that allocates,
# locks or waits: apart from one another, its objects import these symbols only.
#
#   cmake -DNM=<nm> -DOBJECTS=<object>|<object>... -P handler_symbols.cmake
cmake_minimum_required(VERSION 3.25)

set(allowed
    _GLOBAL_OFFSET_TABLE_
    memcpy memmove memset
    _ZSt9terminatev __cxa_begin_catch  # what "noexcept" stands for; nothing here throws
    __gxx_personality_v0
    __cpu_indicator_init __cpu_model
    # What stands in the table of a class with virtual functions, called or not.
    __cxa_pure_virtual _ZTVN10__cxxabiv117__class_type_infoE
    _ZTVN10__cxxabiv120__si_class_type_infoE)
# Before or outside every handler: binding the lookups, and the calling thread's own stack.
set(allowed_outside
    dlsym getauxval pthread_atfork
    _ZN15ThreadUtilities8platform12loadedModuleERK12dl_phdr_info
    _ZN15ThreadUtilities8platform14walkLoaderListEPFiP12dl_phdr_infomPvES3_
    _ZN15ThreadUtilities8platform17currentStackRangeEv
    _ZN15ThreadUtilities8platform18RestartInForkChildC1EPFvvE)

set(runs_in_handlers
    "/handler/"
    "thread_utilities_unwind(_own)?\\.dir")
list(JOIN runs_in_handlers "|" runs_in_handlers)

string(REPLACE "|" ";" objects "${OBJECTS}")
list(FILTER objects INCLUDE REGEX "${runs_in_handlers}")
list(LENGTH objects count)
if(count LESS 12)
    message(FATAL_ERROR "Only these objects of the handler were found: ${objects}")
endif()

set(defined)
set(needed)
foreach(object IN LISTS objects)
    execute_process(COMMAND "${NM}" -P "${object}" OUTPUT_VARIABLE symbols
        COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX MATCHALL "[^\n]+" lines "${symbols}")
    foreach(line IN LISTS lines)
        if(line MATCHES "^([^ ]+) [Uw]")
            list(APPEND needed "${CMAKE_MATCH_1}")
        elseif(line MATCHES "^([^ ]+) ")
            list(APPEND defined "${CMAKE_MATCH_1}")
        endif()
    endforeach()
endforeach()
list(REMOVE_DUPLICATES needed)
list(REMOVE_ITEM needed ${defined} ${allowed} ${allowed_outside})
# Its parameters have other names with each standard library.
list(FILTER needed EXCLUDE REGEX "^_ZN15ThreadUtilities8platform20findPermanentModulesE")
if(NOT defined)
    message(FATAL_ERROR "No symbol was found in ${objects}")
endif()
if(needed)
    list(JOIN needed "\n  " needed)
    message(FATAL_ERROR "Code that runs in the signal handler imports:\n  ${needed}")
endif()
