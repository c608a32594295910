# What an install holds: the library, its headers, the program, and what CMake and pkg-config need to find them.
# The whole tree may be moved after the install.

include(CMakePackageConfigHelpers)

set(tessel_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/tessel")

install(TARGETS tessel
    EXPORT tessel-targets
    RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}"
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
    FILES_MATCHING PATTERN "*.h")

if(TARGET tessel-cli)
    file(RELATIVE_PATH libdir_from_bindir
        "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
    set_target_properties(tessel-cli PROPERTIES INSTALL_RPATH "$ORIGIN/${libdir_from_bindir}")
    install(TARGETS tessel-cli RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
endif()

if(TARGET tessel-nbdkit-plugin)
    # Below the same prefix as nbdkit this is where nbdkit looks for it by its name alone.
    set(TESSEL_NBDKIT_PLUGIN_DIR "${NBDKIT_PLUGIN_DIR}" CACHE STRING "Folder of nbdkit's plug-ins, below the prefix")
    file(RELATIVE_PATH libdir_from_plugindir
        "${CMAKE_INSTALL_PREFIX}/${TESSEL_NBDKIT_PLUGIN_DIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
    set_target_properties(tessel-nbdkit-plugin PROPERTIES INSTALL_RPATH "$ORIGIN/${libdir_from_plugindir}")
    install(TARGETS tessel-nbdkit-plugin LIBRARY DESTINATION "${TESSEL_NBDKIT_PLUGIN_DIR}")
    install(FILES "${PROJECT_BINARY_DIR}/plugins/nbdkit/nbdkit-tessel-plugin.1"
        DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
endif()

install(EXPORT tessel-targets
    NAMESPACE tessel::
    DESTINATION "${tessel_package_dir}")
configure_package_config_file(
    "${PROJECT_SOURCE_DIR}/cmake/tessel-config.cmake.in"
    "${PROJECT_BINARY_DIR}/tessel-config.cmake"
    INSTALL_DESTINATION "${tessel_package_dir}"
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(
    "${PROJECT_BINARY_DIR}/tessel-config-version.cmake"
    COMPATIBILITY SameMinorVersion)
install(
    FILES
        "${PROJECT_BINARY_DIR}/tessel-config.cmake"
        "${PROJECT_BINARY_DIR}/tessel-config-version.cmake"
    DESTINATION "${tessel_package_dir}")

file(RELATIVE_PATH tessel_pc_prefix
    "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" tessel_pc_prefix "${tessel_pc_prefix}")
configure_file(
    "${PROJECT_SOURCE_DIR}/cmake/tessel.pc.in"
    "${PROJECT_BINARY_DIR}/tessel.pc"
    @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/tessel.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
