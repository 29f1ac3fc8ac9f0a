#!/usr/bin/env bash
# Builds the Debian packages (libftpdisk1, libftpdisk-host1, libftpdisk-dev,
# ftpdisk) for each architecture asked for, checks what is in them, and runs
# lintian on them. Exits non-zero when a build, a check or lintian fails.
# First it installs what packaging needs and the machine lacks
# (scripts/install-deps.sh package: the build tools, dpkg-dev, lintian and
# file, and for armhf the cross compiler and the armhf runtime libraries), and
# nothing else.
#
#   scripts/package.sh                 # amd64 and armhf
#   scripts/package.sh amd64           # one architecture
#
# Packages land in build/package/packages (amd64) and
# build/package-armhf/packages (armhf). Each build starts from an empty build
# folder, compiled with Debian's build flags (dpkg-buildflags, all hardening
# on) for the target architecture, in release mode and stripped.
#
# The checks look at the packages as a recorder's build would see them,
# through what is installed, not through the sources: every header of
# libftpdisk-dev compiles on its own against the unpacked include folder, the
# module's file type is the target's, its soname is libftpdisk.so.1, and the
# only dynamic symbols it defines belong to FTPFileSystem,
# FTPFileSystemManager and KDRuntimeError; built with TLS (FTPDISK_TLS, on by
# default) it links libssl.so.3 and libcrypto.so.3 and libftpdisk1 depends on
# libssl3, while the CMake package and the pkg-config file ask for no OpenSSL; the host library's soname is
# libftpdisk_host.so.1 and it defines only the host classes and the switches
# of HostControl.h. While building, the exports are also compared with
# packaging/libftpdisk1/symbols and packaging/libftpdisk-host1/symbols
# (dpkg-gensymbols).
#
# lintian runs with --fail-on error,warning; tags that remain on purpose are
# overridden in packaging/libftpdisk1/lintian-overrides, each with its reason.
# Informational tags are printed too, for the record.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=${FTPDISK_JOBS:-2}
arches=("$@")
[ ${#arches[@]} -gt 0 ] || arches=(amd64 armhf)

say() { echo "package: $*"; }
fail() { echo "package: FAILED: $*" >&2; exit 1; }

scripts/install-deps.sh package "${arches[@]}"
for tool in cmake ninja cpack dpkg-buildflags dpkg-shlibdeps dpkg-gensymbols lintian file readelf; do
  command -v "${tool}" >/dev/null 2>&1 || fail "missing ${tool}: run scripts/install-deps.sh"
done

version=$(sed -n 's/^project(ftpdisk VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "${version}" ] || fail "no project version in CMakeLists.txt"

# Checks the four packages of one architecture.
check_packages() {
  local arch=$1 dir=$2 cross=$3 machine=$4 tls=$5
  local lib="${dir}/libftpdisk1_${version}_${arch}.deb"
  local host="${dir}/libftpdisk-host1_${version}_${arch}.deb"
  local dev="${dir}/libftpdisk-dev_${version}_${arch}.deb"
  local tool="${dir}/ftpdisk_${version}_${arch}.deb"
  local deb
  for deb in "${lib}" "${host}" "${dev}" "${tool}"; do
    [ -f "${deb}" ] || fail "${deb} was not made"
    [ "$(dpkg-deb -f "${deb}" Architecture)" = "${arch}" ] || fail "${deb}: wrong architecture"
    [ "$(dpkg-deb -f "${deb}" Version)" = "${version}" ] || fail "${deb}: wrong version"
  done

  local root=${dir}/unpacked
  rm -rf "${root}"
  mkdir -p "${root}"
  for deb in "${lib}" "${host}" "${dev}" "${tool}"; do
    dpkg-deb -x "${deb}" "${root}"
  done
  local triplet
  triplet=$(dpkg-architecture -a"${arch}" -qDEB_HOST_MULTIARCH 2>/dev/null)
  local libdir="${root}/usr/lib/${triplet}"

  # The module: file type, soname, links, exports, dependencies.
  local module="${libdir}/libftpdisk.so.${version}"
  check_library "${libdir}" libftpdisk libftpdisk1 "${machine}"
  local strays
  strays=$(LC_ALL=C "${cross}nm" -D --defined-only "${module}" | awk '{print $3}' | c++filt |
    grep -Ev '^(FTPFileSystem|FTPFileSystemManager|KDRuntimeError)::|^(typeinfo|typeinfo name|vtable) for (FTPFileSystem|FTPFileSystemManager|KDRuntimeError)$' || true)
  [ -z "${strays}" ] || fail "libftpdisk.so.1 exports more than its three classes:
${strays}"
  local exported
  exported=$(LC_ALL=C "${cross}nm" -D --defined-only "${module}" | wc -l)
  say "${arch}: libftpdisk.so.1 is a ${machine} object and exports ${exported} symbols, all of FTPFileSystem, FTPFileSystemManager and KDRuntimeError"
  dpkg-deb -f "${lib}" Depends | grep -q 'libstdc++6' || fail "libftpdisk1 does not depend on libstdc++6"
  # TLS: the module runs on OpenSSL 3's two libraries and the package says
  # so (libssl3 holds both); built without, it needs neither.
  local links_ssl=no
  LC_ALL=C readelf -d "${module}" | grep -q 'NEEDED.*\[libssl\.so\.3\]' && links_ssl=yes
  if [ "${tls}" = yes ]; then
    [ "${links_ssl}" = yes ] || fail "libftpdisk.so.1 is built with TLS but does not link libssl.so.3"
    LC_ALL=C readelf -d "${module}" | grep -q 'NEEDED.*\[libcrypto\.so\.3\]' ||
      fail "libftpdisk.so.1 is built with TLS but does not link libcrypto.so.3"
    dpkg-deb -f "${lib}" Depends | grep -qE '(^|, )libssl3 \(>= 3\.[0-9.]+\)(,|$)' ||
      fail "libftpdisk1 does not depend on libssl3 (>= 3...): $(dpkg-deb -f "${lib}" Depends)"
    say "${arch}: libftpdisk1 runs on OpenSSL 3: $(dpkg-deb -f "${lib}" Depends | grep -oE 'libssl3 \([^)]*\)')"
  else
    [ "${links_ssl}" = no ] || fail "libftpdisk.so.1 is built without TLS but links libssl.so.3"
    ! dpkg-deb -f "${lib}" Depends | grep -q 'libssl' || fail "libftpdisk1 is built without TLS but depends on libssl"
  fi
  # OpenSSL is the module's own business: the CMake package and the
  # pkg-config file ask a recorder's build for none of it.
  ! grep -qi 'openssl\|libssl\|libcrypto' "${libdir}"/cmake/ftpdisk/*.cmake "${libdir}/pkgconfig/ftpdisk.pc" ||
    fail "the CMake package or ftpdisk.pc asks a recorder's build for OpenSSL"
  dpkg-deb -f "${dev}" Depends | grep -qx "libftpdisk1 (= ${version}), libftpdisk-host1 (= ${version})" ||
    fail "libftpdisk-dev does not depend on libftpdisk1 and libftpdisk-host1 (= ${version})"
  local needed
  for needed in libftpdisk1 libftpdisk-host1; do
    dpkg-deb -f "${tool}" Depends | grep -q "${needed} (= ${version})" ||
      fail "ftpdisk does not depend on ${needed} (= ${version})"
  done
  check_control "${dir}" "${lib}" libftpdisk1 libftpdisk

  # The host library: file type, soname, links, exports, dependencies.
  local hostlib="${libdir}/libftpdisk_host.so.${version}"
  check_library "${libdir}" libftpdisk_host libftpdisk-host1 "${machine}"
  LC_ALL=C readelf -d "${hostlib}" | grep -q 'NEEDED.*\[libftpdisk.so.1\]' ||
    fail "libftpdisk_host.so.1 does not link libftpdisk.so.1 (the error type it throws through)"
  local host_classes='GThread|GlobalEnv|KDFile|KDLogger|KDMutex|KDTime|KadmorTime|RefCountManager|ref_count|StringHandler|StringParser|string_util|hostcontrol'
  strays=$(LC_ALL=C "${cross}nm" -D --defined-only "${hostlib}" | awk '{print $3}' | c++filt |
    grep -Ev "^(${host_classes})::|^(typeinfo|typeinfo name|vtable) for GThread\$" || true)
  [ -z "${strays}" ] || fail "libftpdisk_host.so.1 exports more than the host classes:
${strays}"
  exported=$(LC_ALL=C "${cross}nm" -D --defined-only "${hostlib}" | wc -l)
  say "${arch}: libftpdisk_host.so.1 is a ${machine} object and exports ${exported} symbols, all of the host classes and HostControl.h"
  dpkg-deb -f "${host}" Depends | grep -q "libftpdisk1 (= ${version})" ||
    fail "libftpdisk-host1 does not depend on libftpdisk1 (= ${version})"
  check_control "${dir}" "${host}" libftpdisk-host1 libftpdisk_host

  # Every installed header compiles on its own, as a recorder includes it.
  local include="${root}/usr/include/ftpdisk" header count=0
  [ -f "${include}/filesystem/FTPFileSystemManager.h" ] || fail "no filesystem/FTPFileSystemManager.h"
  while IFS= read -r header; do
    "${cross}g++" -std=c++11 -fsyntax-only -Wall -Wextra -Werror -I"${include}" \
      -include "${header}" -x c++ /dev/null ||
      fail "installed header ${header#"${include}"/} does not compile on its own"
    count=$((count + 1))
  done < <(find "${include}" -name '*.h' | sort)
  say "${arch}: all ${count} installed headers compile on their own"
  [ -f "${include}/ftpdisk_host/HostControl.h" ] || fail "no ftpdisk_host/HostControl.h"
  [ -f "${libdir}/cmake/ftpdisk/ftpdiskConfig.cmake" ] || fail "no CMake package"
  grep -q 'ftpdisk::host' "${libdir}/cmake/ftpdisk/ftpdiskTargets.cmake" || fail "no CMake target ftpdisk::host"
  [ -f "${libdir}/cmake/ftpdisk/ftpdiskHostConformance.cmake" ] ||
    fail "no ftpdisk_add_host_conformance in the CMake package"
  local suite=${root}/usr/share/ftpdisk/host-conformance
  [ -f "${suite}/HostConformance.cpp" ] || fail "no host conformance suite in usr/share/ftpdisk/host-conformance"
  grep -qx 'Libs: -L${libdir} -lftpdisk' "${libdir}/pkgconfig/ftpdisk.pc" || fail "no pkg-config file"

  # The command: its type, its run path to the module and the host library, its manual page.
  file -b "${root}/usr/bin/ftpdisk" | grep -q "ELF .* ${machine}" || fail "usr/bin/ftpdisk is not ${machine} code"
  LC_ALL=C readelf -d "${root}/usr/bin/ftpdisk" | grep -q 'NEEDED.*\[libftpdisk_host.so.1\]' ||
    fail "usr/bin/ftpdisk does not run on libftpdisk_host.so.1"
  LC_ALL=C readelf -d "${root}/usr/bin/ftpdisk" | grep -q 'RUNPATH.*\$ORIGIN/../lib/'"${triplet}" ||
    fail "usr/bin/ftpdisk does not find its libraries through its run path"
  [ -f "${root}/usr/share/man/man1/ftpdisk.1.gz" ] || fail "no manual page"
  say "${arch}: contents checked"
}

# The shared library <name>.so.<version> of a package in the unpacked library
# folder: its file type, its soname, the .so.1 link and libftpdisk-dev's .so
# link.
check_library() {
  local libdir=$1 name=$2 package=$3 machine=$4
  local library="${libdir}/${name}.so.${version}"
  [ -f "${library}" ] || fail "${package} lacks ${name}.so.${version}"
  file -b "${library}" | grep -q "ELF .* shared object, ${machine}" ||
    fail "${name}.so.${version} is not a ${machine} shared object: $(file -b "${library}")"
  [ "$(readlink "${libdir}/${name}.so.1")" = "${name}.so.${version}" ] ||
    fail "${name}.so.1 does not lead to ${name}.so.${version}"
  [ "$(readlink "${libdir}/${name}.so")" = "${name}.so.1" ] ||
    fail "libftpdisk-dev's ${name}.so does not lead to ${name}.so.1"
  local soname
  soname=$(LC_ALL=C readelf -d "${library}" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
  [ "${soname}" = "${name}.so.1" ] || fail "the soname of ${name}.so.${version} is '${soname}'"
}

# The control files of a library package: shlibs, symbols, ldconfig trigger.
check_control() {
  local dir=$1 deb=$2 package=$3 library=$4
  local control=${dir}/control-${package}
  rm -rf "${control}"
  dpkg-deb -e "${deb}" "${control}"
  grep -qx "${library} 1 ${package} (>= ${version})" "${control}/shlibs" || fail "${package}'s shlibs file"
  head -n 1 "${control}/symbols" | grep -qx "${library}.so.1 ${package} #MINVER#" ||
    fail "${package}'s symbols file"
  grep -qx 'activate-noawait ldconfig' "${control}/triggers" || fail "${package}'s ldconfig trigger"
}

run_lintian() {
  local dir=$1
  say "lintian $(lintian --version | awk '{print $2}') on ${dir}"
  # Root is what CI runs as; lintian only notes it.
  local output status=0
  output=$(lintian --fail-on error,warning --display-info "${dir}"/*.deb 2>&1) || status=$?
  printf '%s\n' "${output}" | grep -v 'running with root privileges' || true
  [ ${status} -eq 0 ] || fail "lintian reports errors or warnings"
  local problems
  problems=$(printf '%s\n' "${output}" | grep -c '^[EW]: ' || true)
  say "lintian: ${problems} errors or warnings, $(printf '%s\n' "${output}" | grep -c '^I: ' || true) informational tags"
}

for arch in "${arches[@]}"; do
  started=$SECONDS
  case "${arch}" in
    amd64) preset=package; cross=; machine=x86-64 ;;
    armhf) preset=package-armhf; cross=arm-linux-gnueabihf-; machine=ARM ;;
    *) fail "unknown architecture ${arch} (amd64 or armhf)" ;;
  esac
  build=build/${preset}
  say "${arch}: configure and build in ${build}"
  rm -rf "${build}"
  (
    # dpkg-buildflags for the target: hardening, fortified functions, relro
    # and immediate binding. CMake takes these only when a build folder is
    # configured for the first time, hence the empty folder.
    export DEB_HOST_ARCH=${arch} DEB_BUILD_MAINT_OPTIONS=hardening=+all
    CXXFLAGS="$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)"
    LDFLAGS="$(dpkg-buildflags --get LDFLAGS)"
    export CXXFLAGS LDFLAGS
    cmake --preset "${preset}" >/dev/null
    cmake --build --preset "${preset}" -j "${jobs}"
    # dpkg-shlibdeps reads the host architecture from DEB_HOST_ARCH.
    cd "${build}" && cpack -G DEB >cpack.log 2>&1 || { cat cpack.log; exit 1; }
  )
  tls=no
  grep -q '^FTPDISK_TLS:BOOL=ON$' "${build}/CMakeCache.txt" && tls=yes
  check_packages "${arch}" "${build}/packages" "${cross}" "${machine}" "${tls}"
  run_lintian "${build}/packages"
  say "${arch}: done in $((SECONDS - started)) s: $(cd "${build}/packages" && ls ./*.deb | tr '\n' ' ')"
done
