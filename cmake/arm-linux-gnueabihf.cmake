# Cross build for 32-bit Arm Linux (armhf) with Debian's
# g++-arm-linux-gnueabihf; the tests run under qemu-arm with the cross
# sysroot's loader and libraries. qemu-arm splits recvmmsg into recvmsg calls
# and runs on a 64-bit kernel's native paths, so it does not reproduce the
# kernel's compat checks of a 32-bit process: a test on every host checks the
# receive's buffers itself.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;/usr/arm-linux-gnueabihf)
