# Tests of a cross build: GoogleTest from its sources, every program under Wine.
#
# One ctest entry is one program, not one test: starting a process costs more than most tests.

set(INSTALL_GTEST OFF)
# Part of each test program: a DLL would have to be found beside it.
set(build_shared_libs_of_the_library ${BUILD_SHARED_LIBS})
set(BUILD_SHARED_LIBS OFF)
set(THREAD_UTILITIES_GTEST_SOURCES /usr/src/googletest CACHE PATH "Sources of GoogleTest")
add_subdirectory("${THREAD_UTILITIES_GTEST_SOURCES}" "${CMAKE_BINARY_DIR}/googletest"
    EXCLUDE_FROM_ALL)
set(BUILD_SHARED_LIBS ${build_shared_libs_of_the_library})

set(run_under_wine "${PROJECT_SOURCE_DIR}/tools/run-under-wine" "${CMAKE_BINARY_DIR}/wine")

# add_wine_test(<name> COMMAND <program> [argument]...): a test of its own.
function(add_wine_test name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "COMMAND")
    add_test(NAME ${name} COMMAND ${run_under_wine} ${arg_COMMAND})
    set_tests_properties(${name} PROPERTIES FIXTURES_REQUIRED wine
        TIMEOUT ${THREAD_UTILITIES_TEST_TIMEOUT})
endfunction()

function(register_test_program name)
    add_wine_test(${name} COMMAND $<TARGET_FILE:${name}>)
endfunction()

# Wine's own index service is a stub that ends the process, so the prefix gets a stand-in.
add_test(NAME WinePrefixIsMade
    COMMAND ${run_under_wine} --prepare $<TARGET_FILE:symbol_server_stand_in>)
add_test(NAME WineServerIsEnded COMMAND ${run_under_wine} --finish)
set_tests_properties(WinePrefixIsMade PROPERTIES FIXTURES_SETUP wine TIMEOUT 300)
set_tests_properties(WineServerIsEnded PROPERTIES FIXTURES_CLEANUP wine TIMEOUT 60)
