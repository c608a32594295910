# Finds the header that nbdkit's plug-ins are built with. Sets NBDKIT_INCLUDE_DIR and NBDKIT_PLUGIN_DIR, the folder in
# which nbdkit looks for plug-ins, as seen from nbdkit's own prefix.

find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
    pkg_check_modules(PC_NBDKit QUIET nbdkit)
    pkg_get_variable(PC_NBDKit_plugindir nbdkit plugindir)
endif()

find_path(NBDKIT_INCLUDE_DIR NAMES nbdkit-plugin.h HINTS ${PC_NBDKit_INCLUDE_DIRS} ${PC_NBDKit_INCLUDEDIR})
mark_as_advanced(NBDKIT_INCLUDE_DIR)
if(PC_NBDKit_plugindir)
    file(RELATIVE_PATH NBDKIT_PLUGIN_DIR "${PC_NBDKit_PREFIX}" "${PC_NBDKit_plugindir}")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(NBDKit
    REQUIRED_VARS NBDKIT_INCLUDE_DIR NBDKIT_PLUGIN_DIR
    VERSION_VAR PC_NBDKit_VERSION)
