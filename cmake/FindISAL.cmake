# Finds ISA-L, with or without its pkg-config file, and makes the imported target ISAL::ISAL.
# Headers are included as <isa-l/igzip_lib.h>.

find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
    pkg_check_modules(PC_ISAL QUIET libisal)
endif()

find_path(ISAL_INCLUDE_DIR NAMES isa-l/igzip_lib.h HINTS ${PC_ISAL_INCLUDE_DIRS})
find_library(ISAL_LIBRARY NAMES isal isa-l HINTS ${PC_ISAL_LIBRARY_DIRS})
mark_as_advanced(ISAL_INCLUDE_DIR ISAL_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ISAL
    REQUIRED_VARS ISAL_LIBRARY ISAL_INCLUDE_DIR
    VERSION_VAR PC_ISAL_VERSION)

if(ISAL_FOUND AND NOT TARGET ISAL::ISAL)
    add_library(ISAL::ISAL UNKNOWN IMPORTED)
    set_target_properties(ISAL::ISAL PROPERTIES
        IMPORTED_LOCATION "${ISAL_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${ISAL_INCLUDE_DIR}")
endif()
