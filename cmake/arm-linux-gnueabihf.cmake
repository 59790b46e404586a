# Cross-compilation for 32-bit ARM (hard float) boards with Debian's
# g++-arm-linux-gnueabihf; tests run under qemu-arm (package qemu-user).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Packages: the target root first, then CMAKE_PREFIX_PATH as given, so that a
# cross-built zorv installed under any prefix is found by find_package.
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
  find_program(ZORV_QEMU_ARM qemu-arm)
  if(ZORV_QEMU_ARM)
    set(CMAKE_CROSSCOMPILING_EMULATOR "${ZORV_QEMU_ARM};-L;/usr/arm-linux-gnueabihf")
  endif()
endif()
