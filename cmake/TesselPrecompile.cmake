# tessel_precompile(<target> <header>...)
#
# Compiles large headers once for all of a target's sources. Not with a compiler launcher, which is a cache as a rule:
# caches miss behind such headers. The sources include what they need all the same.
function(tessel_precompile target)
    if(NOT CMAKE_CXX_COMPILER_LAUNCHER)
        target_precompile_headers(${target} PRIVATE ${ARGN})
    endif()
endfunction()

# tessel_compile_together(<target> <group> <source>...)
#
# Compiles sources of a target as if they were one file, where each alone spends its time on the same large header.
# Names without linkage must differ among them. Not with a compiler launcher or a checker, which look at single files.
function(tessel_compile_together target group)
    if(NOT CMAKE_CXX_COMPILER_LAUNCHER AND NOT CMAKE_CXX_CLANG_TIDY)
        set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP)
        set_source_files_properties(${ARGN} PROPERTIES UNITY_GROUP ${group})
    endif()
endfunction()
