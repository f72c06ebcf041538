# SPDX-License-Identifier: MIT
# What the presets switch, and the flags that every target of ours gets.

option(LEDBOARD_HOST_PROGRAMS "build ledboard and ledboard-server" ON)
option(LEDBOARD_VIRTUAL_BOARD "build virtual-board and its library" ON)
option(LEDBOARD_TESTS "build the tests" ON)
option(LEDBOARD_BENCH "build the benchmarks" ON)
option(LEDBOARD_FUZZ "build the fuzz targets (clang)" OFF)
set(LEDBOARD_SANITIZE "" CACHE STRING "sanitizers for every target, comma-separated")

add_library(ledboard_options INTERFACE)
target_compile_options(ledboard_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -fno-strict-aliasing)
target_compile_definitions(ledboard_options INTERFACE _FILE_OFFSET_BITS=64)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  target_compile_definitions(ledboard_options INTERFACE _TIME_BITS=64) # stat fails on later dates else
endif()

if(LEDBOARD_SANITIZE)
  target_compile_options(ledboard_options INTERFACE
    -fsanitize=${LEDBOARD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(ledboard_options INTERFACE -fsanitize=${LEDBOARD_SANITIZE})
endif()
