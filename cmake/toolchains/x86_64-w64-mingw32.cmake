# Cross-compiling for 64-bit Windows with Debian's mingw-w64 (the -posix compilers, whose
# std::thread is winpthreads, as in the Qt for Windows that the full build links).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Qt for Windows and the SDK's own installed package live outside the mingw sysroot.
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
# Tests and programs run through Wine, in a session of their own (see wine-run.sh).
find_program(KVPCIE_WINE NAMES wine64 wine PATHS /usr/lib/wine)
if(KVPCIE_WINE)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run.sh)
endif()
