# Builds for Windows x64 on another system, with MinGW-w64's GCC and its POSIX threads (std::mutex needs those). What
# is linked besides comes from scripts/windows-deps and from Debian's zlib for this compiler.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

# Nothing of the system that builds may get in but its programs.
set(CMAKE_FIND_ROOT_PATH
    "${CMAKE_CURRENT_LIST_DIR}/../build/windows-deps/prefix"
    /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ZLIB_USE_STATIC_LIBS ON)
