# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# Compares the dynamic symbols of the library with the names that its public headers mark.
#
#   cmake -DROOT=<source folder> -DNM=<nm> -DLIBRARY=<shared library> [-DHEADER=<name>]
#       -P exported_symbols.cmake
#   cmake -DROOT=<source folder> -DOBJDUMP=<objdump> -DCXXFILT=<c++filt> -DLIBRARY=<DLL> -P ...
cmake_minimum_required(VERSION 3.25)

# count_of(<name> <variable> <list>...): how often the name is in the list.
function(count_of name result)
    set(count 0)
    foreach(one IN LISTS ARGN)
        if(one STREQUAL name)
            math(EXPR count "${count} + 1")
        endif()
    endforeach()
    set(${result} ${count} PARENT_SCOPE)
endfunction()

set(functions)
if(NM AND NOT HEADER)
    # The start hooks, which take the place of the C library's own.
    list(APPEND functions pthread_create thrd_create)
endif()
set(classes)

# The header of a library of its own, or all headers but these.
file(GLOB headers "${ROOT}/include/*/*.h")
if(HEADER)
    list(FILTER headers INCLUDE REGEX "/${HEADER}\\.h$")
else()
    list(FILTER headers EXCLUDE REGEX "/(Export|ProcessCapture)\\.h$")
endif()
foreach(header IN LISTS headers)
    file(READ "${header}" text)
    string(REGEX REPLACE "//[^\n]*" "" text "${text}")
    # Classes that mark their members one by one begin and end at the start of a line.
    string(REGEX REPLACE "\n(struct|class) (\\[\\[nodiscard\\]\\] )?([A-Za-z_0-9]+)( : [^\n;]*)? {"
        " MEMBERS_OF \\3 {" text "${text}")
    string(REGEX REPLACE "\n}" " END_OF_MEMBERS " text "${text}")
    string(REGEX REPLACE "[;\n]" " " text "${text}")
    string(REGEX MATCHALL
        "namespace [A-Za-z_:]+ {|MEMBERS_OF [A-Za-z_0-9]+|END_OF_MEMBERS|THREAD_UTILITIES_API [^({]*[({]"
        declarations "${text}")
    set(scope "")
    set(class "")
    foreach(declaration IN LISTS declarations)
        if(declaration MATCHES "^namespace ([A-Za-z_:]+)")
            # The headers open namespaces one after the other; a nested one is written as a::b.
            set(scope "${CMAKE_MATCH_1}")
        elseif(declaration MATCHES "^MEMBERS_OF (.+)")
            set(class "::${CMAKE_MATCH_1}")
        elseif(declaration STREQUAL "END_OF_MEMBERS")
            set(class "")
        elseif(declaration MATCHES "(operator[^ (]+|~?[A-Za-z_0-9]+)[ ]*\\($")
            list(APPEND functions "${scope}${class}::${CMAKE_MATCH_1}")
        elseif(declaration MATCHES "THREAD_UTILITIES_API ([A-Za-z_0-9]+)")
            list(APPEND classes "${scope}::${CMAKE_MATCH_1}")
        endif()
    endforeach()
endforeach()

if(NM)
    execute_process(COMMAND ${NM} -D --defined-only -C "${LIBRARY}"
        OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
else()
    execute_process(COMMAND ${OBJDUMP} -p "${LIBRARY}" COMMAND ${CXXFILT}
        OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
    # The table of names, in the form of the other tool's lines.
    string(REGEX REPLACE "^.*Ordinal/Name Pointer[^\n]*" "" symbols "${symbols}")
    string(REGEX REPLACE "\n\n.*$" "" symbols "${symbols}")
    string(REGEX REPLACE "\n[ \t]*\\[ *[0-9]+\\] +(\\+base\\[ *[0-9]+\\] +[0-9a-f]+ +)?" "\n0 T "
        symbols "${symbols}")
endif()
string(REGEX REPLACE ";" "," symbols "${symbols}")
string(REGEX REPLACE "\n" ";" symbols "${symbols}")
# A constructor and a destructor have one symbol for whole objects and one for bases.
list(TRANSFORM symbols REPLACE "^[0-9a-f]+ " "")
list(REMOVE_DUPLICATES symbols)

set(failures 0)
set(found)
foreach(symbol IN LISTS symbols)
    if(NOT symbol MATCHES "^([A-Za-z]) (.*)$")
        continue()
    endif()
    set(name "${CMAKE_MATCH_2}")
    string(REGEX REPLACE "^(vtable|typeinfo|typeinfo name) for " "" entity "${name}")
    string(REGEX REPLACE "\\[abi:[a-z0-9]+\\]" "" entity "${entity}")
    string(REGEX REPLACE "\\(.*$" "" entity "${entity}")
    string(REGEX REPLACE "::[^:]*$" "" owner "${entity}")
    if(entity IN_LIST functions)
        list(APPEND found "${entity}")
    elseif(entity IN_LIST classes OR owner IN_LIST classes)
        list(APPEND found "${entity}" "${owner}")
    else()
        message("leaves the library unmarked: ${name}")
        math(EXPR failures "${failures} + 1")
    endif()
endforeach()
# Each overload is declared once and exported once.
set(names ${functions})
list(REMOVE_DUPLICATES names)
foreach(name IN LISTS names)
    count_of("${name}" declared_count ${functions})
    count_of("${name}" exported_count ${found})
    if(NOT declared_count EQUAL exported_count)
        message("${name}: ${declared_count} declarations, ${exported_count} exported functions")
        math(EXPR failures "${failures} + 1")
    endif()
endforeach()

list(LENGTH functions function_count)
list(LENGTH classes class_count)
if(function_count LESS 5 AND NOT (HEADER AND class_count GREATER 0))
    message(FATAL_ERROR "found only ${function_count} functions in the headers")
endif()
if(failures GREATER 0)
    message(FATAL_ERROR "${failures} symbols differ")
endif()
message("${function_count} functions and the members of ${class_count} classes are exported")
