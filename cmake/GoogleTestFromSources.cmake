# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# GoogleTest for a compiler that no package of it is made for.

set(INSTALL_GTEST OFF)
# Part of each test program: a DLL would have to be found beside it.
set(build_shared_libs_of_the_library ${BUILD_SHARED_LIBS})
set(BUILD_SHARED_LIBS OFF)
set(THREAD_UTILITIES_GTEST_SOURCES /usr/src/googletest CACHE PATH "Sources of GoogleTest")
add_subdirectory("${THREAD_UTILITIES_GTEST_SOURCES}" "${PROJECT_BINARY_DIR}/googletest"
    EXCLUDE_FROM_ALL)
set(BUILD_SHARED_LIBS ${build_shared_libs_of_the_library})
