# Debian packages of what is installed, one for each component:
#
#   (cd build/release && cpack -G DEB)
#
# With CMAKE_INSTALL_PREFIX=/usr from the start, the library is packaged into the folder of its architecture.

set(TESSEL_PACKAGE_CONTACT "The maintainers of tessel <tessel@localhost>" CACHE STRING
    "Whom a package names as its maintainer")
set(tessel_runtime_package "libtessel${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tessel)
set(CPACK_PACKAGE_VENDOR tessel)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "${TESSEL_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TARGET tessel-cli)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# What the binaries link is looked up, and a package of the same version is asked for.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "${tessel_runtime_package}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "The shared library, for programs that use it.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtessel-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_DESCRIPTION "Headers, documents and examples, for writing programs that use the library.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tessel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "The program for the command line.")

include(CPack)
