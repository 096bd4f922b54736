# SPDX-License-Identifier: Apache-2.0
#
# What CMake must know of a device to compile for it with a cross compiler:
#
#   cmake -DCMAKE_TOOLCHAIN_FILE=toolchain.cmake -DDEVICE_TRIPLE=arm-linux-gnueabihf -DDEVICE_ROOT=/path/to/sysroot ...
#
# DEVICE_TRIPLE is what the names of the compilers begin with. DEVICE_ROOT holds the headers and libraries of the
# device, in the folders that they have there.
set(DEVICE_TRIPLE arm-linux-gnueabihf CACHE STRING "What the names of the compilers begin with")
set(DEVICE_ROOT "" CACHE PATH "Headers and libraries of the device")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES DEVICE_TRIPLE DEVICE_ROOT)

set(CMAKE_SYSTEM_NAME Linux)
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR ${DEVICE_TRIPLE})
set(CMAKE_C_COMPILER ${DEVICE_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${DEVICE_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${DEVICE_TRIPLE})

# Programs are those of this machine; all else comes from the device's root, or from a folder that the command line names.
set(CMAKE_SYSROOT ${DEVICE_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config too must not find what this machine has.
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${DEVICE_ROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${DEVICE_ROOT}/usr/lib/${DEVICE_TRIPLE}/pkgconfig:${DEVICE_ROOT}/usr/lib/pkgconfig:${DEVICE_ROOT}/usr/share/pkgconfig)
