# tessel_precompile(<target> <header>...)
#
# Compiles large headers once for all of a target's sources. Not with a compiler launcher, which is a cache as a rule:
# caches miss behind such headers. The sources include what they need all the same.
function(tessel_precompile target)
    if(NOT CMAKE_CXX_COMPILER_LAUNCHER)
        target_precompile_headers(${target} PRIVATE ${ARGN})
    endif()
endfunction()
