# ftpdisk_add_host_conformance(<target> <host library>... [NO_TEST])
#
# Builds the host conformance suite as the program <target>, linked with the
# given libraries that hold the recorder's own host classes (the src/host
# contracts) and with the module, and registers it as a test of the same name
# (add_test; it runs when the calling project has enable_testing(), under
# CMAKE_CROSSCOMPILING_EMULATOR in a cross build). NO_TEST only builds it, for
# a project that runs it its own way (on the recorder itself, say). The
# program runs every check in a child process of its own with a time limit,
# prints PASS or FAIL per check and exits 0 only when every check passed:
#
#   find_package(ftpdisk 1.0 REQUIRED CONFIG)
#   add_library(recorder_host STATIC host/Locks.cpp host/Threads.cpp ...)
#   ftpdisk_add_host_conformance(recorder_host_conformance recorder_host)
#
# Installed with the CMake package by libftpdisk-dev, which ships the suite's
# sources; in this project's own build the top-level CMakeLists.txt includes
# it for tests/conformance.
#
# FTPDISK_HOST_CONFORMANCE_DIR is the folder of the sources (set by the
# package's configuration file, or by the including project).
# FTPDISK_HOST_CONFORMANCE_MODULE is what gives the module's error type the
# suite throws through: ftpdisk::ftpdisk unless set.

set(FTPDISK_HOST_CONFORMANCE_SOURCES
  HostConformance.h
  HostConformance.cpp
  RefCountChecks.cpp
  ThreadChecks.cpp
  ClockChecks.cpp
  FileChecks.cpp
  TextChecks.cpp)

function(ftpdisk_add_host_conformance target)
  cmake_parse_arguments(ARG "NO_TEST" "" "" ${ARGN})
  if(NOT ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "ftpdisk_add_host_conformance(<target> <host library>...)")
  endif()
  if(NOT FTPDISK_HOST_CONFORMANCE_DIR)
    message(FATAL_ERROR "FTPDISK_HOST_CONFORMANCE_DIR names no folder of the suite's sources")
  endif()
  set(module ftpdisk::ftpdisk)
  if(FTPDISK_HOST_CONFORMANCE_MODULE)
    set(module ${FTPDISK_HOST_CONFORMANCE_MODULE})
  endif()
  find_package(Threads REQUIRED)
  set(sources)
  foreach(source IN LISTS FTPDISK_HOST_CONFORMANCE_SOURCES)
    list(APPEND sources ${FTPDISK_HOST_CONFORMANCE_DIR}/${source})
  endforeach()
  add_executable(${target} ${sources})
  # C++11 like the module, so it builds with the recorder's own toolchain.
  # The host symbols are exported as a recorder exports them to the module.
  set_target_properties(${target} PROPERTIES
    CXX_STANDARD 11 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF ENABLE_EXPORTS ON)
  # The module first, so that a host archive also gives what the module
  # itself calls and the suite does not.
  target_link_libraries(${target} PRIVATE ${module} ${ARG_UNPARSED_ARGUMENTS} Threads::Threads)
  if(NOT ARG_NO_TEST)
    add_test(NAME ${target} COMMAND ${target})
  endif()
endfunction()
