# What a user of the library finds: headers, the library, a CMake package that may be moved with
# them, and a pkg-config file.
include(CMakePackageConfigHelpers)

set(package_folder "${CMAKE_INSTALL_LIBDIR}/cmake/ThreadUtilities")

install(TARGETS ThreadUtilities EXPORT ThreadUtilitiesTargets
    RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}"
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
    FILES_MATCHING PATTERN "*.h")
install(EXPORT ThreadUtilitiesTargets NAMESPACE ThreadUtilities:: DESTINATION "${package_folder}")

configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/ThreadUtilitiesConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/package/ThreadUtilitiesConfig.cmake"
    INSTALL_DESTINATION "${package_folder}"
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/package/ThreadUtilitiesConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/package/ThreadUtilitiesConfig.cmake"
    "${PROJECT_BINARY_DIR}/package/ThreadUtilitiesConfigVersion.cmake"
    DESTINATION "${package_folder}")

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
set(pkg_config_cflags "")
set(pkg_config_libs "")
if(NOT BUILD_SHARED_LIBS)
    set(pkg_config_cflags " -DTHREAD_UTILITIES_STATIC")
    set(pkg_config_libs " -lstdc++")
endif()
configure_file("${CMAKE_CURRENT_LIST_DIR}/ThreadUtilities.pc.in"
    "${PROJECT_BINARY_DIR}/package/ThreadUtilities.pc" @ONLY)
if(NOT WIN32)
    install(FILES "${PROJECT_BINARY_DIR}/package/ThreadUtilities.pc"
        DESTINATION "${pkg_config_folder}")
endif()
