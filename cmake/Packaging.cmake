# Debian packages of the install components (cmake/Install.cmake), made with
# CPack's DEB generator:
#
#   libftpdisk1     runtime       libftpdisk.so.1
#   libftpdisk-dev  development   headers, libftpdisk.so, CMake package, ftpdisk.pc
#   ftpdisk         tool          the ftpdisk command, its host library, its manual
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
# Only the three components below, one package each, in Debian's naming.
set(CPACK_COMPONENTS_ALL runtime development tool)
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
# Depends from dpkg-shlibdeps: the C and C++ runtimes. The host classes the
# module leaves undefined belong to the recorder's process and give no
# dependency (dpkg-shlibdeps notes them as unresolved, which is expected).
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# packaging/libftpdisk1/symbols is the ABI contract of libftpdisk.so.1, written
# with demangled names. The package presets turn FTPDISK_DEB_SYMBOLS on: every
# build then compares it with what the built library exports (dpkg-gensymbols
# -c4 fails on a symbol lost or gained) and writes the package's symbols file.
# The shlibs file names the package for programs that only look there; the
# trigger runs ldconfig.
option(FTPDISK_DEB_SYMBOLS "Check the exported symbols against packaging/libftpdisk1/symbols" OFF)
set(FTPDISK_DEB_SYMBOLS_FILE ${PROJECT_BINARY_DIR}/packaging/libftpdisk1/symbols)
if(FTPDISK_DEB_SYMBOLS)
  find_program(FTPDISK_DPKG_GENSYMBOLS dpkg-gensymbols REQUIRED)
  add_custom_command(OUTPUT ${FTPDISK_DEB_SYMBOLS_FILE}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/packaging/libftpdisk1
    COMMAND ${FTPDISK_DPKG_GENSYMBOLS} -plibftpdisk1 -v${PROJECT_VERSION}
            -a${CPACK_DEBIAN_PACKAGE_ARCHITECTURE} -c4
            -I${PROJECT_SOURCE_DIR}/packaging/libftpdisk1/symbols
            -e$<TARGET_FILE:ftpdisk> -O${FTPDISK_DEB_SYMBOLS_FILE}
    DEPENDS ftpdisk ${PROJECT_SOURCE_DIR}/packaging/libftpdisk1/symbols
    WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
    COMMENT "Comparing the exports of libftpdisk.so.1 with packaging/libftpdisk1/symbols"
    VERBATIM)
  add_custom_target(ftpdisk_deb_symbols ALL DEPENDS ${FTPDISK_DEB_SYMBOLS_FILE})
endif()
file(WRITE ${PROJECT_BINARY_DIR}/packaging/libftpdisk1/shlibs
     "libftpdisk 1 libftpdisk1 (>= ${FTPDISK_DEB_VERSION})\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${FTPDISK_DEB_SYMBOLS_FILE}
    ${PROJECT_BINARY_DIR}/packaging/libftpdisk1/shlibs
    ${PROJECT_SOURCE_DIR}/packaging/libftpdisk1/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"FTP server as a disk for network video recorders (module)
The module a network video recorder loads into its main process to keep
recordings and snapshots on a remote FTP server as if that server were one
of its disks: directory and file operations, files by handle, whole-file
copies, one snapshot stream, listings and space figures, over plain FTP with
passive data connections.
.
The recorder's own process provides the host classes the module calls
(threads, mutexes, clocks, logging, local files, reference counts); see
libftpdisk-dev for their contracts.")

# --- libftpdisk-dev -----------------------------------------------------------------
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libftpdisk-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libftpdisk1 (= ${FTPDISK_DEB_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"FTP server as a disk for network video recorders (development files)
Headers of the two exported classes (FTPFileSystemManager, the registry of
stores, and FTPFileSystem, one store), of the reference-counted pointer and
the error type they use, and of the host contracts a recorder's own host
classes implement; the link to libftpdisk.so.1, a CMake package
(find_package(ftpdisk)) and a pkg-config file (ftpdisk).")

# --- ftpdisk --------------------------------------------------------------------------
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME ftpdisk)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
# The module comes from this build: dpkg-shlibdeps finds it in the build tree
# (it has no dependency information yet), and the exact version is named here.
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libftpdisk1 (= ${FTPDISK_DEB_VERSION})")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/src ${PROJECT_BINARY_DIR}/hostlib)
set(CPACK_DEBIAN_TOOL_DESCRIPTION
"try an FTP server as storage for network video recorders
The ftpdisk command goes through the same module a recorder loads
(libftpdisk1), with a POSIX implementation of the recorder's host classes,
to answer whether a server will hold recordings: a checked round trip with
a verdict, a stand-in recorder with many cameras, and ls, du, df, mkdir,
rm, mv, put, get and cat on a storage location.")

include(CPack)
