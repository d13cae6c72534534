# Cross-compiling for 64-bit Arm Linux with Debian's cross compiler (crossbuild-essential-arm64)
# against the arm64 packages of the dependencies, installed beside the host's by multiarch
# (dpkg --add-architecture arm64): their libraries and CMake packages live below
# /usr/lib/aarch64-linux-gnu, their headers are the host's. Qt's moc, uic and rcc are the host's.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
# Only arm64 libraries and packages; programs (moc, python3, pkg-config's wrapper) are the host's.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu /usr)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu)
find_program(KVPCIE_ARM64_PKG_CONFIG aarch64-linux-gnu-pkg-config)
if(KVPCIE_ARM64_PKG_CONFIG)
    set(PKG_CONFIG_EXECUTABLE ${KVPCIE_ARM64_PKG_CONFIG} CACHE FILEPATH "arm64 pkg-config")
endif()
# Tests and programs run under user-mode emulation; the arm64 loader and libraries are the
# multiarch tree's.
find_program(KVPCIE_QEMU_AARCH64 qemu-aarch64)
if(KVPCIE_QEMU_AARCH64)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${KVPCIE_QEMU_AARCH64})
endif()
