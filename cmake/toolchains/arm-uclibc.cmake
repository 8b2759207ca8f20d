# 32-bit ARM with uClibc, the C library of many cameras, by the toolchain that scripts/uclibc-toolchain builds; qemu-user runs
# the programs. For the toolchain of a camera's maker, copy this file and name its compiler and sysroot.

get_filename_component(toolchain "${CMAKE_CURRENT_LIST_DIR}/../../build/toolchains/uclibc" ABSOLUTE)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER ${toolchain}/bin/arm-uclibc-gcc)
set(CMAKE_CXX_COMPILER ${toolchain}/bin/arm-uclibc-g++)
# GCC would note at every vector that compilers before 7.1 passed it otherwise; none of those built anything used here.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# Its loader does not know $ORIGIN.
set(CMAKE_BUILD_RPATH_USE_ORIGIN OFF)

# The device's libraries and headers only, but this machine's programs.
set(CMAKE_FIND_ROOT_PATH ${toolchain}/sysroot)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${toolchain}/sysroot)
