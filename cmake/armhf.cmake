# 32-bit ARM, the architecture of the watch: cross compiler, a sysroot of its own, and qemu-user to
# run what was built. script/armhf-sysroot makes the sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

if(DEFINED ENV{PARVANE_ARMHF_SYSROOT})
    set(CMAKE_SYSROOT "$ENV{PARVANE_ARMHF_SYSROOT}")
else()
    set(CMAKE_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot")
endif()
get_filename_component(CMAKE_SYSROOT "${CMAKE_SYSROOT}" ABSOLUTE)
if(NOT EXISTS "${CMAKE_SYSROOT}/usr/include")
    message(FATAL_ERROR "there is no armhf sysroot at ${CMAKE_SYSROOT}: run script/armhf-sysroot first")
endif()

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# The notes on how g++ 7 passed arguments are of no use here.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm;-L;${CMAKE_SYSROOT}")

set(CMAKE_FIND_ROOT_PATH "${CMAKE_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
