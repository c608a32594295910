# tessel_add_instrumentation(<target>)
#
# Builds a target with the sanitizers named in TESSEL_SANITIZERS and, with TESSEL_COVERAGE, with counters for a
# coverage report. Any finding of a sanitizer ends the process.
function(tessel_add_instrumentation target)
    if(TESSEL_SANITIZERS)
        list(JOIN TESSEL_SANITIZERS "," sanitizers)
        target_compile_options(${target} PRIVATE
            -fsanitize=${sanitizers}
            -fno-sanitize-recover=all
            -fno-omit-frame-pointer)
        target_link_options(${target} PRIVATE -fsanitize=${sanitizers})
    endif()

    if(TESSEL_COVERAGE)
        # Tests use threads: counters that are not atomic would go negative.
        target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic)
        target_link_options(${target} PRIVATE --coverage)
    endif()
endfunction()
