# tessel_add_warnings(<target> [CONVERSIONS])
#
# Turns on the project's warnings for one of its own targets. CONVERSIONS adds those about implicit conversions
# that may change a value; shipped code carries them, tests do not.
function(tessel_add_warnings target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "CONVERSIONS" "" "")

    if(MSVC)
        # Not: that classes of the DLL hold and derive from the language's own, which its users share with it.
        target_compile_options(${target} PRIVATE /W4 /wd4251 /wd4275 /permissive- /utf-8)
        if(TESSEL_WARNINGS_AS_ERRORS)
            target_compile_options(${target} PRIVATE /WX)
        endif()
        return()
    endif()

    target_compile_options(${target} PRIVATE
        -Wall
        -Wextra
        -Wpedantic
        -Wshadow
        -Wnon-virtual-dtor
        -Woverloaded-virtual
        -Wold-style-cast
        -Wcast-qual
        -Wformat=2)
    if(arg_CONVERSIONS)
        # Only what GCC means by it: Clang would add conversions that change nothing but the sign.
        target_compile_options(${target} PRIVATE
            -Wconversion
            -Wno-sign-conversion)
    endif()
    if(TESSEL_WARNINGS_AS_ERRORS)
        target_compile_options(${target} PRIVATE -Werror)
    endif()

    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
        # GCC 12 sees overlapping copies in std::string's operator+ where there are none (GCC bug 105651).
        target_compile_options(${target} PRIVATE -Wno-restrict)
    endif()
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND TESSEL_SANITIZERS)
        # The sanitizers' own code hides initialisations from GCC; the plain builds keep the warning.
        target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized)
    endif()
endfunction()
