# Cross-compiling for 64-bit Windows with Debian's mingw-w64 (the -posix compilers, whose
# std::thread is winpthreads), linked statically so that the .exe files run under Wine or on
# Windows without the compiler's DLLs.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
# Tests run through Wine.
find_program(KVPCIE_WINE NAMES wine64 wine PATHS /usr/lib/wine)
if(KVPCIE_WINE)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${KVPCIE_WINE})
endif()
