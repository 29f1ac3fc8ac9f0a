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

# OpenSSL 3 for armhf (the module's TLS), which scripts/install-deps.sh unpacks
# from Debian's libssl-dev:armhf and libssl3:armhf into a folder of its own
# rather than installing them beside the build machine's amd64 OpenSSL. Its
# tree is Debian's: headers in usr/include/openssl, the two that differ by
# architecture in usr/include/arm-linux-gnueabihf/openssl, libraries in
# usr/lib/arm-linux-gnueabihf. It is one more root for find_package(OpenSSL),
# whose library search looks in the architecture's folder below usr/lib, and
# the architecture's header folder is searched by every compile, as the build
# machine's compiler does with its own. Another folder: -DFTPDISK_ARMHF_OPENSSL_DIR=...
# or the same variable in the environment at the first configure.
if(NOT FTPDISK_ARMHF_OPENSSL_DIR)
  if(DEFINED ENV{FTPDISK_ARMHF_OPENSSL_DIR})
    set(FTPDISK_ARMHF_OPENSSL_DIR $ENV{FTPDISK_ARMHF_OPENSSL_DIR})
  else()
    set(FTPDISK_ARMHF_OPENSSL_DIR /opt/ftpdisk-armhf-openssl)
  endif()
endif()
set(FTPDISK_ARMHF_OPENSSL_DIR ${FTPDISK_ARMHF_OPENSSL_DIR} CACHE PATH
    "OpenSSL 3 for armhf, unpacked by scripts/install-deps.sh")
list(APPEND CMAKE_FIND_ROOT_PATH ${FTPDISK_ARMHF_OPENSSL_DIR})
set(OPENSSL_ROOT_DIR ${FTPDISK_ARMHF_OPENSSL_DIR}/usr)
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES
    ${FTPDISK_ARMHF_OPENSSL_DIR}/usr/include/${FTPDISK_ARMHF_TRIPLE})
# A program linked against the module must let the linker find the module's
# own libssl.so.3 and libcrypto.so.3, which CMake's imported OpenSSL targets do
# not mark as shared libraries to be looked up for it. The build tree's run
# paths happen to lead there; this holds without them too (the packages'
# release build, CMAKE_SKIP_RPATH).
set(FTPDISK_ARMHF_OPENSSL_LINK
    "-Wl,-rpath-link,${FTPDISK_ARMHF_OPENSSL_DIR}/usr/lib/${FTPDISK_ARMHF_TRIPLE}")
set(CMAKE_EXE_LINKER_FLAGS_INIT ${FTPDISK_ARMHF_OPENSSL_LINK})
set(CMAKE_SHARED_LINKER_FLAGS_INIT ${FTPDISK_ARMHF_OPENSSL_LINK})
set(CMAKE_MODULE_LINKER_FLAGS_INIT ${FTPDISK_ARMHF_OPENSSL_LINK})

# qemu-user runs the target's programs on the build machine. The script wraps
# qemu-arm (with -L pointing its loader at the target's C library) so that a
# test program may also start itself or another program of the build again;
# see the script.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/qemu-arm-run.sh)

# List test cases when ctest runs rather than right after linking: listing runs
# each test program under the emulator, which would otherwise slow every build
# and fail the build whenever qemu is missing.
set(CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE PRE_TEST)
