# Finds libdeflate, with or without its pkg-config file, and makes the imported target Libdeflate::Libdeflate.

find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
    pkg_check_modules(PC_Libdeflate QUIET libdeflate)
endif()

find_path(Libdeflate_INCLUDE_DIR NAMES libdeflate.h HINTS ${PC_Libdeflate_INCLUDE_DIRS})
find_library(Libdeflate_LIBRARY NAMES deflate libdeflate HINTS ${PC_Libdeflate_LIBRARY_DIRS})
mark_as_advanced(Libdeflate_INCLUDE_DIR Libdeflate_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Libdeflate
    REQUIRED_VARS Libdeflate_LIBRARY Libdeflate_INCLUDE_DIR
    VERSION_VAR PC_Libdeflate_VERSION)

if(Libdeflate_FOUND AND NOT TARGET Libdeflate::Libdeflate)
    add_library(Libdeflate::Libdeflate UNKNOWN IMPORTED)
    set_target_properties(Libdeflate::Libdeflate PROPERTIES
        IMPORTED_LOCATION "${Libdeflate_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${Libdeflate_INCLUDE_DIR}")
endif()
