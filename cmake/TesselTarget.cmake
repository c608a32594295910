# tessel_configure_target(<target> [CONVERSIONS])
#
# What every target of the project has in common: standard C++20, its warnings and its instrumentation.
# CONVERSIONS: see tessel_add_warnings.
function(tessel_configure_target target)
    set_target_properties(${target} PROPERTIES
        CXX_STANDARD 20
        CXX_STANDARD_REQUIRED ON
        CXX_EXTENSIONS OFF)
    tessel_add_warnings(${target} ${ARGN})
    tessel_add_instrumentation(${target})
endfunction()
