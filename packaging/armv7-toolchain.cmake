# SPDX-License-Identifier: MIT
# Cross-compiles for the board. Debian's cross compiler brings its own C++ library; everything else comes from
# build/armv7-sysroot, which scripts/armv7-sysroot fills.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # one compiler builds everything

get_filename_component(LEDBOARD_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armv7-sysroot ABSOLUTE)
if(NOT EXISTS ${LEDBOARD_SYSROOT}/.complete)
  message(FATAL_ERROR "run scripts/armv7-sysroot first: ${LEDBOARD_SYSROOT} is not there or not complete")
endif()

set(CMAKE_SYSROOT ${LEDBOARD_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Qt's own tools run on this machine.
set(QT_HOST_PATH /usr)
file(GLOB ledboard_host_qt /usr/lib/*/cmake/Qt6HostInfo)
list(GET ledboard_host_qt 0 ledboard_host_qt)
get_filename_component(QT_HOST_PATH_CMAKE_DIR ${ledboard_host_qt} DIRECTORY)

# What the build itself runs, the tests asked for their names, runs under emulation.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-arm-static -L ${LEDBOARD_SYSROOT})
