# Cross build for the recorder's processor: 32-bit ARM Linux, hard-float ABI
# (armhf), with Debian's cross compiler (g++-arm-linux-gnueabihf) and the target
# C library in /usr/arm-linux-gnueabihf (libc6-dev-armhf-cross).
#
# On this target `long` and pointers are 32 bits wide, so any code that relies on
# a 64-bit `long` shows up here first. Test programs run under qemu-user: CMake
# prefixes every target program it runs (ctest, test discovery) with
# CMAKE_CROSSCOMPILING_EMULATOR.
#
#   cmake --preset armhf        # or: cmake -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake ...

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(FTPDISK_ARMHF_TRIPLE arm-linux-gnueabihf)
set(FTPDISK_ARMHF_SYSROOT /usr/${FTPDISK_ARMHF_TRIPLE})

# Both languages: the module is C++ only, but GoogleTest's own project enables C.
set(CMAKE_C_COMPILER ${FTPDISK_ARMHF_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${FTPDISK_ARMHF_TRIPLE}-g++)

# Libraries and headers come from the target's tree only; programs (python3 for
# the test servers, qemu) come from the build machine.
set(CMAKE_FIND_ROOT_PATH ${FTPDISK_ARMHF_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# qemu-user runs the target's programs on the build machine; -L points its
# dynamic loader at the target's C library.
find_program(FTPDISK_QEMU_ARM qemu-arm)
if(NOT FTPDISK_QEMU_ARM)
  set(FTPDISK_QEMU_ARM qemu-arm)
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${FTPDISK_QEMU_ARM} -L ${FTPDISK_ARMHF_SYSROOT})

# List test cases when ctest runs rather than right after linking: listing runs
# each test program under the emulator, which would otherwise slow every build
# and fail the build whenever qemu is missing.
set(CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE PRE_TEST)
