# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

# What a user of the library finds: headers, the library, a CMake package that may be moved with
# them, and a pkg-config file. The shared and the static library, and a Debug beside a release
# build, may be installed in one folder.
include(CMakePackageConfigHelpers)

set(package_folder "${CMAKE_INSTALL_LIBDIR}/cmake/ThreadUtilities")
if(BUILD_SHARED_LIBS)
    set(kind shared)
else()
    set(kind static)
endif()

# Component Runtime is what a program needs that was built with the library, Development the rest.
set(libraries ThreadUtilities)
set_target_properties(ThreadUtilities PROPERTIES EXPORT_NAME ${kind})
set(headers_of_others)
if(TARGET ThreadUtilitiesProcess)
    list(APPEND libraries ThreadUtilitiesProcess)
    set_target_properties(ThreadUtilitiesProcess PROPERTIES EXPORT_NAME Process_${kind})
else()
    set(headers_of_others PATTERN ProcessCapture.h EXCLUDE)
endif()
install(TARGETS ${libraries} EXPORT ThreadUtilitiesTargets
    RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT Runtime
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT Runtime
        NAMELINK_COMPONENT Development
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT Development)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
    COMPONENT Development FILES_MATCHING PATTERN "*.h" ${headers_of_others})
install(EXPORT ThreadUtilitiesTargets NAMESPACE ThreadUtilities::
    FILE ThreadUtilities-${kind}.cmake DESTINATION "${package_folder}" COMPONENT Development)

configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/ThreadUtilitiesConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/package/ThreadUtilitiesConfig.cmake"
    INSTALL_DESTINATION "${package_folder}"
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/package/ThreadUtilitiesConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/package/ThreadUtilitiesConfig.cmake"
    "${PROJECT_BINARY_DIR}/package/ThreadUtilitiesConfigVersion.cmake"
    DESTINATION "${package_folder}" COMPONENT Development)

# Written relative to its own place; absolute folders (a distribution's) stay as they are.
set(pkg_config_folder "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(pkg_config_prefix "${CMAKE_INSTALL_PREFIX}")
else()
    cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
        BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}/${pkg_config_folder}"
        OUTPUT_VARIABLE pkg_config_prefix)
    string(PREPEND pkg_config_prefix "\${pcfiledir}/")
endif()
cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_LIBDIR BASE_DIRECTORY "\${prefix}"
    OUTPUT_VARIABLE pkg_config_libdir)
cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_INCLUDEDIR BASE_DIRECTORY "\${prefix}"
    OUTPUT_VARIABLE pkg_config_includedir)
get_target_property(pkg_config_postfix ThreadUtilities DEBUG_POSTFIX)
if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug" OR NOT pkg_config_postfix)
    set(pkg_config_postfix "")
endif()
# What the archive needs; beside a shared library it is needed with `pkg-config --static` only.
set(pkg_config_private stdc++ ${THREAD_UTILITIES_ARCHIVE_LIBRARIES})
if(CMAKE_CXX_FLAGS MATCHES "-stdlib=libc\\+\\+")
    list(TRANSFORM pkg_config_private REPLACE "^stdc\\+\\+$" "c++")
endif()
list(TRANSFORM pkg_config_private REPLACE "^([^-].*)$" "-l\\1")
list(TRANSFORM pkg_config_private REPLACE "^LINKER:" "-Wl,")
list(JOIN pkg_config_private " " pkg_config_private)
set(pkg_config_cflags "")
set(pkg_config_libs "")
if(NOT BUILD_SHARED_LIBS)
    set(pkg_config_cflags " -DTHREAD_UTILITIES_STATIC")
    set(pkg_config_libs " ${pkg_config_private}")
    set(pkg_config_private "")
endif()
# The archive of the second library needs the first one's; the shared one stands alone.
set(pkg_config_requires)
if(NOT BUILD_SHARED_LIBS)
    set(pkg_config_requires "\nRequires: ThreadUtilities = ${PROJECT_VERSION}")
endif()
foreach(library IN LISTS libraries)
    configure_file("${CMAKE_CURRENT_LIST_DIR}/${library}.pc.in"
        "${PROJECT_BINARY_DIR}/package/${library}.pc" @ONLY)
    install(FILES "${PROJECT_BINARY_DIR}/package/${library}.pc"
        DESTINATION "${pkg_config_folder}" COMPONENT Development)
endforeach()
