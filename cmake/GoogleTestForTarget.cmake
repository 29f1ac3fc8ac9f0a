# GoogleTest compiled for the target when cross-compiling.
#
# The build machine's libgtest.a is built for the build machine's processor and
# cannot be linked into armhf test programs, so the framework is compiled here
# from Debian's source package (googletest, installed with libgtest-dev) into
# <build>/googletest. Its own CMake project defines GTest::gtest and
# GTest::gtest_main, the same names find_package(GTest) gives a native build, so
# the test folders link the same way on both.
#
# FTPDISK_GTEST_SOURCE_DIR chooses another copy of the sources.

set(FTPDISK_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH
    "GoogleTest sources compiled for the target when cross-compiling")
if(NOT EXISTS ${FTPDISK_GTEST_SOURCE_DIR}/googletest/CMakeLists.txt)
  message(FATAL_ERROR
    "GoogleTest sources not found in ${FTPDISK_GTEST_SOURCE_DIR}: install "
    "libgtest-dev (Debian's googletest package) or set FTPDISK_GTEST_SOURCE_DIR")
endif()

# Only the two static libraries (the googletest folder alone, so no
# GoogleMock): none of the framework's own tests or samples, nothing installed
# with the module.
set(INSTALL_GTEST OFF)
set(ftpdisk_saved_shared_libs ${BUILD_SHARED_LIBS})
set(BUILD_SHARED_LIBS OFF)
add_subdirectory(${FTPDISK_GTEST_SOURCE_DIR}/googletest ${CMAKE_BINARY_DIR}/googletest
                 EXCLUDE_FROM_ALL)
set(BUILD_SHARED_LIBS ${ftpdisk_saved_shared_libs})

# Older source releases do not define the namespaced names themselves.
if(NOT TARGET GTest::gtest)
  add_library(GTest::gtest ALIAS gtest)
endif()
if(NOT TARGET GTest::gtest_main)
  add_library(GTest::gtest_main ALIAS gtest_main)
endif()
