# What an install holds: the library, its headers, the program, what CMake and pkg-config need to find them, and
# documents with examples. The whole tree may be moved after the install.
#
# Each part belongs to a component, of which TesselPackage.cmake makes packages: "runtime" is what programs need that
# use the library, "dev" what building them needs, "tools" the program. What names none belongs to "tools".

include(CMakePackageConfigHelpers)

set(tessel_document_dir "${CMAKE_INSTALL_DATAROOTDIR}/doc/tessel")

set(tessel_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/tessel")

install(TARGETS tessel
    EXPORT tessel-targets
    RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT runtime
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT dev)
if(WIN32 AND TESSEL_RUNTIME_DLLS)
    install(FILES ${TESSEL_RUNTIME_DLLS} DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT runtime)
endif()
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/" "${PROJECT_BINARY_DIR}/include/"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
    COMPONENT dev
    FILES_MATCHING PATTERN "*.h")

if(TARGET tessel-cli)
    file(RELATIVE_PATH libdir_from_bindir
        "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
    set_target_properties(tessel-cli PROPERTIES INSTALL_RPATH "$ORIGIN/${libdir_from_bindir}")
    install(TARGETS tessel-cli RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
    install(FILES "${PROJECT_BINARY_DIR}/cli/tessel.1"
        DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
        COMPONENT tools)
    install(FILES "${PROJECT_SOURCE_DIR}/completions/tessel.bash"
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions"
        RENAME tessel
        COMPONENT tools)
    install(FILES "${PROJECT_SOURCE_DIR}/completions/tessel.fish"
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/fish/vendor_completions.d"
        COMPONENT tools)
    # Below /usr, where packages go, Debian's zsh looks in a folder of its own, and elsewhere in the usual one.
    set(tessel_zsh_dirs site-functions)
    if(EXISTS /etc/debian_version)
        list(APPEND tessel_zsh_dirs vendor-completions)
    endif()
    foreach(folder IN LISTS tessel_zsh_dirs)
        install(FILES "${PROJECT_SOURCE_DIR}/completions/_tessel"
            DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/zsh/${folder}"
            COMPONENT tools)
    endforeach()
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
    DESTINATION "${tessel_package_dir}"
    COMPONENT dev)
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
    DESTINATION "${tessel_package_dir}"
    COMPONENT dev)

file(RELATIVE_PATH tessel_pc_prefix
    "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" tessel_pc_prefix "${tessel_pc_prefix}")
configure_file(
    "${PROJECT_SOURCE_DIR}/cmake/tessel.pc.in"
    "${PROJECT_BINARY_DIR}/tessel.pc"
    @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/tessel.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
    COMPONENT dev)

# The documents keep their places to each other, so that the links between them lead somewhere.
file(GLOB tessel_licences "${PROJECT_SOURCE_DIR}/LICENSE*" "${PROJECT_SOURCE_DIR}/COPYING*")
install(FILES "${PROJECT_SOURCE_DIR}/CHANGELOG.md" ${tessel_licences}
    DESTINATION "${tessel_document_dir}"
    COMPONENT runtime)
install(FILES "${PROJECT_SOURCE_DIR}/SECURITY.md"
    DESTINATION "${tessel_document_dir}"
    COMPONENT dev)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/docs" "${PROJECT_SOURCE_DIR}/examples"
    DESTINATION "${tessel_document_dir}"
    COMPONENT dev
    FILES_MATCHING PATTERN "*.md" PATTERN "*.cpp" PATTERN "CMakeLists.txt")

if(PROJECT_IS_TOP_LEVEL AND NOT WIN32)
    include(TesselPackage)
endif()
