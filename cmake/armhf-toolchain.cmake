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

# GCC on ARM notes every place where a type is passed by value whose calling
# convention changed in GCC 7.1 (vector<double> iterators, initializer_list of
# doubles). Everything in this build, GoogleTest included, is compiled by one
# compiler, and no interface between the module and the recorder passes such a
# type by value, so the notes only bury real diagnostics.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# 64-bit file offsets, sizes and inode numbers (open64, stat64, readdir64
# behind the usual names). Without them a 32-bit program cannot open a local
# recording of 2 GiB or more (EOVERFLOW) nor write past 2 GiB (EFBIG), and
# under qemu-user on a 64-bit kernel even readdir fails on ext4, whose
# directory offsets are 64-bit hashes. No interface of the module carries
# off_t, so this changes nothing at the boundary with the recorder.
string(APPEND CMAKE_CXX_FLAGS_INIT " -D_FILE_OFFSET_BITS=64")
set(CMAKE_C_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")

# Libraries and headers come from the target's tree only; programs (python3 for
# the test servers, qemu) come from the build machine.
set(CMAKE_FIND_ROOT_PATH ${FTPDISK_ARMHF_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# qemu-user runs the target's programs on the build machine. The script wraps
# qemu-arm (with -L pointing its loader at the target's C library) so that a
# test program may also start itself or another program of the build again;
# see the script.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/qemu-arm-run.sh)

# List test cases when ctest runs rather than right after linking: listing runs
# each test program under the emulator, which would otherwise slow every build
# and fail the build whenever qemu is missing.
set(CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE PRE_TEST)
