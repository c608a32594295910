# tessel_add_test(<name> [SOURCES] <source>... [LIBRARIES <target>...] [TIMEOUT <seconds>] [FILTER <GoogleTest filter>]
#                 [REPLACES_ALLOCATION])
#
# Makes one GoogleTest executable of a folder. Each of its cases becomes a test "<name>.<suite>.<case>" with a time
# limit of its own. Built for another system, where each start of a program costs, all its cases become one test
# "<name>", but for those that tests/windows/not_under_wine.txt lists.
#
# REPLACES_ALLOCATION: the executable has its own operators new and delete, which the library must use, too.
function(tessel_add_test name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "REPLACES_ALLOCATION" "TIMEOUT;FILTER" "SOURCES;LIBRARIES")
    list(APPEND arg_SOURCES ${arg_UNPARSED_ARGUMENTS})
    if(NOT arg_SOURCES)
        message(FATAL_ERROR "No sources are listed for the tests of ${name}")
    endif()
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 120)
    endif()

    set(target tessel_${name}_test)
    add_executable(${target} ${arg_SOURCES})
    set(support tessel_test_support)
    if(WIN32 AND arg_REPLACES_ALLOCATION)
        set(support tessel_test_support_whole)
        if(MINGW) # the language's library allocates, too
            target_link_options(${target} PRIVATE -static)
        endif()
    endif()
    target_link_libraries(${target} PRIVATE ${support} GTest::gmock_main ${arg_LIBRARIES})
    tessel_configure_target(${target})
    tessel_configure_tests(${target})
    tessel_precompile(${target}
        <gmock/gmock.h> <gtest/gtest.h> <algorithm> <functional> <map> <memory> <string> <vector>)
    if(CMAKE_CROSSCOMPILING)
        tessel_add_whole_test(${name} ${target} "${arg_FILTER}")
        return()
    endif()
    gtest_discover_tests(${target}
        TEST_PREFIX "${name}."
        TEST_FILTER "${arg_FILTER}"
        DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT ${arg_TIMEOUT})
endfunction()

# tessel_add_whole_test(<name> <target> <GoogleTest filter>)
#
# Adds all cases of an executable as one test, for tessel_add_test.
function(tessel_add_whole_test name target filter)
    set(list "${PROJECT_SOURCE_DIR}/tests/windows/not_under_wine.txt")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${list}")
    file(STRINGS "${list}" lines REGEX "^${name} ")
    if(lines AND NOT filter MATCHES "-")
        string(APPEND filter "-")
    endif()
    foreach(line IN LISTS lines)
        string(REGEX REPLACE "^[^ ]+ +([^ ]+).*" ":\\1" pattern "${line}")
        string(APPEND filter "${pattern}")
    endforeach()
    string(REPLACE "-:" "-" filter "${filter}")
    if(filter STREQUAL "") # which GoogleTest takes for none
        set(filter "*")
    endif()
    add_test(NAME ${name} COMMAND ${target} --gtest_brief=1 "--gtest_filter=${filter}")
    set_tests_properties(${name} PROPERTIES
        TIMEOUT 900
        FAIL_REGULAR_EXPRESSION "\\] 0 tests from")
endfunction()

# tessel_add_script_test(<name> <script> [<argument>...])
#
# Adds a test that runs a script of the calling folder, for the shell or (by its extension .py) for Python, and
# passes when the script exits with 0. The script finds in its environment TESSEL_PROGRAM, the path of the program
# built here, and TESSEL_SOURCE_DIR, the root of the sources. The test's name is "<folder>.<name>".
function(tessel_add_script_test name script)
    find_program(TESSEL_BASH bash REQUIRED)
    mark_as_advanced(TESSEL_BASH)
    set(interpreter "${TESSEL_BASH}")
    if(script MATCHES "\\.py$")
        find_package(Python3 REQUIRED COMPONENTS Interpreter)
        set(interpreter "${Python3_EXECUTABLE}")
    endif()

    get_filename_component(folder "${CMAKE_CURRENT_SOURCE_DIR}" NAME)
    set(test "${folder}.${name}")
    add_test(NAME "${test}"
        COMMAND "${interpreter}" "${CMAKE_CURRENT_SOURCE_DIR}/${script}" ${ARGN})
    set_tests_properties("${test}" PROPERTIES
        TIMEOUT 300
        ENVIRONMENT "TESSEL_PROGRAM=$<TARGET_FILE:tessel-cli>;TESSEL_SOURCE_DIR=${PROJECT_SOURCE_DIR}")
endfunction()

# tessel_configure_tests(<target>)
#
# Takes back the one pedantic warning that GoogleTest's own macros cause where they are used, and compiles the tests
# themselves without optimisation: the library under them keeps its own, and building takes a fifth of the time.
function(tessel_configure_tests target)
    if(NOT MSVC)
        target_compile_options(${target} PRIVATE -O0)
    endif()
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        target_compile_options(${target} PRIVATE -Wno-gnu-zero-variadic-macro-arguments)
    endif()
endfunction()
