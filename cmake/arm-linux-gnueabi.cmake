# The appliance: 32-bit ARM Linux on an ARM1176JZF-S, with the soft-float calling convention of
# Debian's armel. Libraries come from the folder that scripts/arm-sysroot has made.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMAKE_C_COMPILER arm-linux-gnueabi-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabi-g++)
# An executable for a fixed address is smaller and faster, and leaves nothing to relocate in memory.
set(CMAKE_C_FLAGS_INIT "-mcpu=arm1176jzf-s -marm -fno-pie")
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT} -Wno-psabi") # nothing older is linked

set(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/arm/sysroot)
# Libraries that other libraries need.
set(CMAKE_SHARED_LINKER_FLAGS_INIT
    "-Wl,-rpath-link,${sysroot}/usr/lib/arm-linux-gnueabi:${sysroot}/lib/arm-linux-gnueabi")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${CMAKE_SHARED_LINKER_FLAGS_INIT} -no-pie")

# Each test in namespaces of its own.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/arm-run)

set(CMAKE_FIND_ROOT_PATH ${sysroot})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
