# Every install() rule of the project, by component. `cmake --install` puts
# them all in place; the Debian packages (cmake/Packaging.cmake) take one
# component each:
#
#   runtime      libftpdisk.so.1, the module a recorder loads   -> libftpdisk1
#   host         libftpdisk_host.so.1, the POSIX host classes
#                for programs without their own               -> libftpdisk-host1
#   development  the headers a recorder compiles against, the
#                libftpdisk.so and libftpdisk_host.so links,
#                the CMake package (ftpdisk::ftpdisk,
#                ftpdisk::host, the host conformance suite's
#                sources and ftpdisk_add_host_conformance) and
#                the pkg-config file                              -> libftpdisk-dev
#   tool         the ftpdisk command and its manual page          -> ftpdisk
#
# Included from the top-level CMakeLists.txt once every target exists.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The headers a recorder's sources compile against, relative to src/: the two
# exported classes, the pointer and error types they use, and the host
# contracts its own host classes implement (with what those headers include in
# turn). They keep their relative paths below include/ftpdisk/, so a recorder
# includes "filesystem/FTPFileSystemManager.h" exactly as the module's own
# sources do. The API reference (docs/Doxyfile.in) is built from this list too.
# A header that moves in src/ moves here: the package check compiles every
# installed header on its own, so a missing one fails it.
set(FTPDISK_PUBLIC_HEADERS
  filesystem/FTPFileSystem.h
  filesystem/FTPFileSystemManager.h
  foundation/Export.h
  foundation/KDRuntimeError.h
  foundation/SafePointer.h
  foundation/ThreadAnnotations.h
  foundation/Function.h
  host/GThread.h
  host/GlobalEnv.h
  host/IFileScanAction.h
  host/KDFile.h
  host/KDLogger.h
  host/KDTime.h
  host/KadmorTime.h
  host/RefCountManager.h
  host/StringHandler.h
  host/StringParser.h
  host/string_util.h
  host/technic/KDMutex.h)

set(FTPDISK_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/ftpdisk)
set(FTPDISK_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/ftpdisk)
# The conformance suite's sources are the same for every architecture.
set(FTPDISK_INSTALL_CONFORMANCEDIR ${CMAKE_INSTALL_DATAROOTDIR}/ftpdisk/host-conformance)

# --- runtime and development: the module ---------------------------------------
install(TARGETS ftpdisk EXPORT ftpdiskTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
                COMPONENT runtime
                NAMELINK_COMPONENT development)

foreach(header IN LISTS FTPDISK_PUBLIC_HEADERS)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/src/${header}
          DESTINATION ${FTPDISK_INSTALL_INCLUDEDIR}/${folder}
          COMPONENT development)
endforeach()

# --- host and development: the POSIX host library --------------------------------
# The same ABI rule as the module's: packaging/libftpdisk-host1/symbols.
install(TARGETS ftpdisk_host_shared EXPORT ftpdiskTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
                COMPONENT host
                NAMELINK_COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/hostlib/include/ftpdisk_host/HostControl.h
        DESTINATION ${FTPDISK_INSTALL_INCLUDEDIR}/ftpdisk_host COMPONENT development)

# --- development: the host conformance suite -----------------------------------
foreach(source IN LISTS FTPDISK_HOST_CONFORMANCE_SOURCES)
  install(FILES ${PROJECT_SOURCE_DIR}/conformance/${source}
          DESTINATION ${FTPDISK_INSTALL_CONFORMANCEDIR} COMPONENT development)
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/cmake/ftpdiskHostConformance.cmake
        DESTINATION ${FTPDISK_INSTALL_CMAKEDIR} COMPONENT development)

install(EXPORT ftpdiskTargets NAMESPACE ftpdisk::
        DESTINATION ${FTPDISK_INSTALL_CMAKEDIR} COMPONENT development)
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/packaging/ftpdiskConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ftpdiskConfig.cmake
  INSTALL_DESTINATION ${FTPDISK_INSTALL_CMAKEDIR}
  PATH_VARS FTPDISK_INSTALL_CONFORMANCEDIR)
# 1.x keeps the ABI that the symbols file in packaging/ lists.
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/ftpdiskConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ftpdiskConfig.cmake
              ${PROJECT_BINARY_DIR}/ftpdiskConfigVersion.cmake
        DESTINATION ${FTPDISK_INSTALL_CMAKEDIR} COMPONENT development)

# pkg-config paths are written as the install prefix gives them (/usr for the
# packages); use PKG_CONFIG_SYSROOT_DIR for a tree unpacked elsewhere.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(FTPDISK_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  set(FTPDISK_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
set(FTPDISK_PC_INCLUDEDIR "\${prefix}/${FTPDISK_INSTALL_INCLUDEDIR}")
configure_file(${PROJECT_SOURCE_DIR}/packaging/ftpdisk.pc.in
               ${PROJECT_BINARY_DIR}/ftpdisk.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ftpdisk.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# --- tool: the command, running on the packaged host library --------------------
if(TARGET ftpdisk_tool)
  # $ORIGIN keeps the command working in any prefix the packages are unpacked
  # into: the module and the host library sit in the library folder.
  set_target_properties(ftpdisk_tool PROPERTIES INSTALL_RPATH
    "\$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS ftpdisk_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
  install(FILES ${PROJECT_BINARY_DIR}/packaging/ftpdisk.1.gz
          DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
endif()

# --- Debian's documentation of each package ----------------------------------------
# Every package carries the copyright notice and the changelog, and the two
# library packages the lintian overrides whose reasons are written in those
# files. The compressed files are made at build time without timestamps, so
# the two architectures' packages hold identical bytes in these shared paths.
set(FTPDISK_DEB_PACKAGES libftpdisk1 libftpdisk-host1 libftpdisk-dev ftpdisk)
set(FTPDISK_DEB_COMPONENTS runtime host development tool)
foreach(package component IN ZIP_LISTS FTPDISK_DEB_PACKAGES FTPDISK_DEB_COMPONENTS)
  if(component STREQUAL "tool" AND NOT TARGET ftpdisk_tool)
    continue()
  endif()
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright
                ${PROJECT_BINARY_DIR}/packaging/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/packaging/libftpdisk1/lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
        RENAME libftpdisk1 COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/libftpdisk-host1/lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
        RENAME libftpdisk-host1 COMPONENT host)

# gzip -n: no name or time stamp in the header.
set(FTPDISK_GZIPPED)
foreach(source IN ITEMS ftpdisk.1 changelog)
  if(source STREQUAL "ftpdisk.1" AND NOT TARGET ftpdisk_tool)
    continue()
  endif()
  set(output ${PROJECT_BINARY_DIR}/packaging/${source}.gz)
  add_custom_command(OUTPUT ${output}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/packaging
    COMMAND gzip -9 -n -c ${PROJECT_SOURCE_DIR}/packaging/${source} > ${output}
    DEPENDS ${PROJECT_SOURCE_DIR}/packaging/${source}
    COMMENT "Compressing packaging/${source}")
  list(APPEND FTPDISK_GZIPPED ${output})
endforeach()
add_custom_target(ftpdisk_install_docs ALL DEPENDS ${FTPDISK_GZIPPED})
