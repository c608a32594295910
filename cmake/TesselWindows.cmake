# What building for Windows needs besides. Included for that system alone.

# All programs and DLLs lie in one folder: Windows looks for DLLs beside the program.
if(NOT CMAKE_RUNTIME_OUTPUT_DIRECTORY)
    set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
endif()

# The library and its users share one runtime of the compiler, so that exceptions pass from one to the other. It goes
# along with them, since Windows has none of its own.
set(TESSEL_RUNTIME_DLLS "")
if(MINGW)
    foreach(name IN ITEMS libgcc_s_seh-1.dll libstdc++-6.dll libwinpthread-1.dll)
        execute_process(COMMAND "${CMAKE_CXX_COMPILER}" "-print-file-name=${name}"
            OUTPUT_VARIABLE file OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
        if(NOT IS_ABSOLUTE "${file}")
            message(FATAL_ERROR "The compiler has no ${name}")
        endif()
        file(COPY "${file}" DESTINATION "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
        list(APPEND TESSEL_RUNTIME_DLLS "${file}")
    endforeach()
endif()
