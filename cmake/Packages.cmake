# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# `cpack` in the build folder makes a .tar.gz of everything and Debian packages: the library, what
# programs are built with, and the program thread-utilities where it is built.
set(CPACK_GENERATOR TGZ)
set(CPACK_PACKAGE_NAME threadutilities)
set(CPACK_PACKAGE_VENDOR "The ThreadUtilities authors")
set(CPACK_PACKAGE_CONTACT "The ThreadUtilities authors <threadutilities@localhost>")
set(CPACK_RESOURCE_FILE_LICENSE "${PROJECT_SOURCE_DIR}/LICENSE")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL Development)
if(BUILD_SHARED_LIBS)
    # A program with the static library needs nothing of it any more.
    list(PREPEND CPACK_COMPONENTS_ALL Runtime)
endif()
if(TARGET thread-utilities)
    list(APPEND CPACK_COMPONENTS_ALL Companion)
endif()

if(NOT WIN32)
    list(APPEND CPACK_GENERATOR DEB)
    set(CPACK_DEB_COMPONENT_INSTALL ON)
    set(CPACK_PACKAGING_INSTALL_PREFIX "")
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_PACKAGE_SECTION libs)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libthreadutilities${PROJECT_VERSION_MAJOR})
    set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}")
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libthreadutilities-dev)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
    set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "${PROJECT_DESCRIPTION} (headers)")
    if(BUILD_SHARED_LIBS)
        set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
            "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION})")
    endif()
    if(BUILD_SHARED_LIBS)
        set(CPACK_DEBIAN_COMPANION_PACKAGE_DEPENDS
            "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION})")
        set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/src")
    endif()
    set(CPACK_DEBIAN_COMPANION_PACKAGE_NAME thread-utilities)
    set(CPACK_DEBIAN_COMPANION_PACKAGE_SECTION devel)
    set(CPACK_DEBIAN_COMPANION_DESCRIPTION
        "Functions, lines and pictures for the reports of ThreadUtilities")
    set(CPACK_DEBIAN_COMPANION_PACKAGE_SHLIBDEPS ON)
    # libdw loads it where DEBUGINFOD_URLS is set.
    set(CPACK_DEBIAN_COMPANION_PACKAGE_RECOMMENDS "libdebuginfod1t64 | libdebuginfod1")
    # Where Debian looks for a package's licence, which goes with every copy.
    foreach(component IN LISTS CPACK_COMPONENTS_ALL)
        string(TOUPPER "${component}" component_upper)
        install(FILES "${PROJECT_SOURCE_DIR}/LICENSE" RENAME copyright COMPONENT ${component}
            DESTINATION
                "${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${component_upper}_PACKAGE_NAME}")
    endforeach()
endif()
include(CPack)
