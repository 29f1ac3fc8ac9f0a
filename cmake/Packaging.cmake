# Debian packages of the install components (cmake/Install.cmake), made with
# CPack's DEB generator:
#
#   libftpdisk1       runtime       libftpdisk.so.1
#   libftpdisk-host1  host          libftpdisk_host.so.1, the POSIX host classes
#   libftpdisk-dev    development   headers, libftpdisk.so, libftpdisk_host.so,
#                                   CMake package, host conformance suite, ftpdisk.pc
#   ftpdisk           tool          the ftpdisk command and its manual
#
# scripts/package.sh configures a release build for amd64 or armhf, runs cpack
# and checks the packages (lintian, contents, the symbols file). By hand:
#
#   cmake --preset package && cmake --build --preset package -j2
#   (cd build/package && cpack -G DEB)
#
# Included from the top-level CMakeLists.txt after cmake/Install.cmake.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ftpdisk)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "ftpdisk developers")
set(CPACK_PACKAGE_CONTACT
    "Seed f6612811 maintainers <maintainers@users.noreply.c-seed-f6612811.example>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
# Only the four components below, one package each, in Debian's naming.
set(CPACK_COMPONENTS_ALL runtime host development tool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE ftpdisk)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg's own name for the target (amd64, armhf), taken from the compiler so that
# a cross build is labelled by what it contains, not by the build machine.
if(NOT CPACK_DEBIAN_PACKAGE_ARCHITECTURE)
  if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
  elseif(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "x86_64-linux-gnu")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
  endif()
endif()

set(FTPDISK_DEB_VERSION ${PROJECT_VERSION})

# --- libftpdisk1 ------------------------------------------------------------------
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libftpdisk1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# Depends from dpkg-shlibdeps: the C and C++ runtimes, and libssl3 when TLS is
# built in (FTPDISK_TLS; see the private folders below). The host classes the
# module leaves undefined belong to the recorder's process and give no
# dependency (dpkg-shlibdeps notes them as unresolved, which is expected).
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# packaging/libftpdisk1/symbols and packaging/libftpdisk-host1/symbols are the
# ABI contracts of libftpdisk.so.1 and libftpdisk_host.so.1, written with
# demangled names. The package presets turn FTPDISK_DEB_SYMBOLS on: every
# build then compares each with what the built library exports
# (dpkg-gensymbols -c4 fails on a symbol lost or gained) and writes the
# package's symbols file. The shlibs files name the packages for programs
# that only look there; the triggers run ldconfig.
option(FTPDISK_DEB_SYMBOLS "Check the exported symbols against packaging/<package>/symbols" OFF)
# ftpdisk_deb_library(<package> <target> <library name>): the control files
# of one library package (symbols checked when FTPDISK_DEB_SYMBOLS is on),
# into the variable <package>_CONTROL.
function(ftpdisk_deb_library package target library)
  set(dir ${PROJECT_BINARY_DIR}/packaging/${package})
  set(symbols ${dir}/symbols)
  if(FTPDISK_DEB_SYMBOLS)
    find_program(FTPDISK_DPKG_GENSYMBOLS dpkg-gensymbols REQUIRED)
    add_custom_command(OUTPUT ${symbols}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${dir}
      COMMAND ${FTPDISK_DPKG_GENSYMBOLS} -p${package} -v${PROJECT_VERSION}
              -a${CPACK_DEBIAN_PACKAGE_ARCHITECTURE} -c4
              -I${PROJECT_SOURCE_DIR}/packaging/${package}/symbols
              -e$<TARGET_FILE:${target}> -O${symbols}
      DEPENDS ${target} ${PROJECT_SOURCE_DIR}/packaging/${package}/symbols
      WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
      COMMENT "Comparing the exports of ${library}.so.1 with packaging/${package}/symbols"
      VERBATIM)
    add_custom_target(ftpdisk_deb_symbols_${package} ALL DEPENDS ${symbols})
  endif()
  file(WRITE ${dir}/shlibs "${library} 1 ${package} (>= ${FTPDISK_DEB_VERSION})\n")
  set(${package}_CONTROL ${symbols} ${dir}/shlibs
      ${PROJECT_SOURCE_DIR}/packaging/${package}/triggers PARENT_SCOPE)
endfunction()
ftpdisk_deb_library(libftpdisk1 ftpdisk libftpdisk)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${libftpdisk1_CONTROL})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"FTP server as a disk for network video recorders (module)
The module a network video recorder loads into its main process to keep
recordings and snapshots on a remote FTP server as if that server were one
of its disks: directory and file operations, files by handle, whole-file
copies, one snapshot stream, listings and space figures, over FTP with
passive data connections, in the clear or as explicit FTPS (TLS on the
control and every data connection, OpenSSL 3).
.
The recorder's own process provides the host classes the module calls
(threads, mutexes, clocks, logging, local files, reference counts); see
libftpdisk-dev for their contracts, and libftpdisk-host1 for a POSIX
implementation of them.")

# --- libftpdisk-host1 ---------------------------------------------------------------
set(CPACK_DEBIAN_HOST_PACKAGE_NAME libftpdisk-host1)
set(CPACK_DEBIAN_HOST_PACKAGE_SECTION libs)
# Depends from dpkg-shlibdeps (the C and C++ runtimes) and the module of this
# build, found in the build tree like the command's.
set(CPACK_DEBIAN_HOST_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_HOST_PACKAGE_DEPENDS "libftpdisk1 (= ${FTPDISK_DEB_VERSION})")
ftpdisk_deb_library(libftpdisk-host1 ftpdisk_host_shared libftpdisk_host)
set(CPACK_DEBIAN_HOST_PACKAGE_CONTROL_EXTRA ${libftpdisk-host1_CONTROL})
set(CPACK_DEBIAN_HOST_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_HOST_DESCRIPTION
"FTP server as a disk for network video recorders (POSIX host classes)
A POSIX implementation of the host classes the ftpdisk module calls
(threads, mutexes, clocks and pauses, logging, local files, reference
counts, string helpers), for programs that load the module and have no
host classes of their own: tools, test rigs, recorders on a plain Linux.
A recorder with its own host classes links those instead.")

# --- libftpdisk-dev -----------------------------------------------------------------
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libftpdisk-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libftpdisk1 (= ${FTPDISK_DEB_VERSION}), libftpdisk-host1 (= ${FTPDISK_DEB_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"FTP server as a disk for network video recorders (development files)
Headers of the exported classes (FTPFileSystemManager, the registry of
stores, FTPFileSystem, one store, and KDRuntimeError, the error type), of
the reference-counted pointer, and of the host contracts a recorder's own
host classes implement; the links to libftpdisk.so.1 and
libftpdisk_host.so.1, a CMake package (find_package(ftpdisk): ftpdisk::ftpdisk
and ftpdisk::host), a pkg-config file (ftpdisk), and the host conformance
suite: its sources and ftpdisk_add_host_conformance(), which checks a
recorder's own host classes against what the module relies on. OpenSSL
stays inside the module: its headers include none of OpenSSL's and the
CMake and pkg-config files ask for no OpenSSL, so a recorder needs no
libssl-dev (its linker only needs libssl3, which libftpdisk1 brings).")

# --- ftpdisk --------------------------------------------------------------------------
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME ftpdisk)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
# The module and the host library come from this build: dpkg-shlibdeps finds
# them in the build tree (they have no dependency information yet), and the
# exact versions are named here.
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS
    "libftpdisk1 (= ${FTPDISK_DEB_VERSION}), libftpdisk-host1 (= ${FTPDISK_DEB_VERSION})")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/src ${PROJECT_BINARY_DIR}/hostlib)
# With TLS built in, the module (and the command, which links the FTP layer
# too) runs on libssl.so.3 and libcrypto.so.3, and dpkg-shlibdeps gives the
# dependency on libssl3 from that package's symbols file. On the build
# machine's own architecture that is the installed libssl3's. A cross build's
# OpenSSL is no installed package but the folder scripts/install-deps.sh
# unpacked, whose DEBIAN/symbols is libssl3's own: dpkg-shlibdeps reads it once
# it finds the library there. (CPack runs dpkg-shlibdeps with
# --ignore-missing-info, so a library it cannot place gives no dependency at
# all rather than an error: scripts/package.sh checks the dependency.)
if(FTPDISK_TLS AND CMAKE_CROSSCOMPILING AND OPENSSL_SSL_LIBRARY)
  get_filename_component(FTPDISK_DEB_OPENSSL_LIBDIR "${OPENSSL_SSL_LIBRARY}" DIRECTORY)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${FTPDISK_DEB_OPENSSL_LIBDIR})
endif()
set(CPACK_DEBIAN_TOOL_DESCRIPTION
"try an FTP server as storage for network video recorders
The ftpdisk command goes through the same module a recorder loads
(libftpdisk1), with the POSIX host classes of libftpdisk-host1, to answer
whether a server will hold recordings: a checked round trip with a verdict,
a stand-in recorder with many cameras, and ls, du, df, mkdir, rm, mv, put,
get and cat on a storage location.")

include(CPack)
