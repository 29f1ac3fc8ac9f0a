#!/usr/bin/env bash
# Builds the Debian packages (libftpdisk1, libftpdisk-dev, ftpdisk) for each
# architecture asked for, checks what is in them, and runs lintian on them.
# Exits non-zero when a build, a check or lintian fails.
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
# FTPFileSystemManager and KDRuntimeError. While building, the exports are also
# compared with packaging/libftpdisk1/symbols (dpkg-gensymbols).
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

for tool in cmake ninja cpack dpkg-buildflags dpkg-shlibdeps dpkg-gensymbols lintian file readelf; do
  command -v "${tool}" >/dev/null 2>&1 || fail "missing ${tool}: run scripts/install-deps.sh"
done

version=$(sed -n 's/^project(ftpdisk VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "${version}" ] || fail "no project version in CMakeLists.txt"

# Checks the three packages of one architecture.
check_packages() {
  local arch=$1 dir=$2 cross=$3 machine=$4
  local lib="${dir}/libftpdisk1_${version}_${arch}.deb"
  local dev="${dir}/libftpdisk-dev_${version}_${arch}.deb"
  local tool="${dir}/ftpdisk_${version}_${arch}.deb"
  local deb
  for deb in "${lib}" "${dev}" "${tool}"; do
    [ -f "${deb}" ] || fail "${deb} was not made"
    [ "$(dpkg-deb -f "${deb}" Architecture)" = "${arch}" ] || fail "${deb}: wrong architecture"
    [ "$(dpkg-deb -f "${deb}" Version)" = "${version}" ] || fail "${deb}: wrong version"
  done

  local root=${dir}/unpacked
  rm -rf "${root}"
  mkdir -p "${root}"
  for deb in "${lib}" "${dev}" "${tool}"; do
    dpkg-deb -x "${deb}" "${root}"
  done
  local triplet
  triplet=$(dpkg-architecture -a"${arch}" -qDEB_HOST_MULTIARCH 2>/dev/null)
  local libdir="${root}/usr/lib/${triplet}"

  # The module: file type, soname, links, exports, dependencies.
  local module="${libdir}/libftpdisk.so.${version}"
  [ -f "${module}" ] || fail "libftpdisk1 lacks usr/lib/${triplet}/libftpdisk.so.${version}"
  file -b "${module}" | grep -q "ELF .* shared object, ${machine}" ||
    fail "${module#"${root}"/} is not a ${machine} shared object: $(file -b "${module}")"
  [ "$(readlink "${libdir}/libftpdisk.so.1")" = "libftpdisk.so.${version}" ] ||
    fail "libftpdisk.so.1 does not lead to libftpdisk.so.${version}"
  [ "$(readlink "${libdir}/libftpdisk.so")" = "libftpdisk.so.1" ] ||
    fail "libftpdisk-dev's libftpdisk.so does not lead to libftpdisk.so.1"
  local soname
  soname=$(LC_ALL=C readelf -d "${module}" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
  [ "${soname}" = "libftpdisk.so.1" ] || fail "soname is '${soname}', not libftpdisk.so.1"
  local strays
  strays=$(LC_ALL=C "${cross}nm" -D --defined-only "${module}" | awk '{print $3}' | c++filt |
    grep -Ev '^(FTPFileSystem|FTPFileSystemManager|KDRuntimeError)::|^(typeinfo|typeinfo name|vtable) for (FTPFileSystem|FTPFileSystemManager|KDRuntimeError)$' || true)
  [ -z "${strays}" ] || fail "libftpdisk.so.1 exports more than its three classes:
${strays}"
  local exported
  exported=$(LC_ALL=C "${cross}nm" -D --defined-only "${module}" | wc -l)
  say "${arch}: libftpdisk.so.1 is a ${machine} object and exports ${exported} symbols, all of FTPFileSystem, FTPFileSystemManager and KDRuntimeError"
  dpkg-deb -f "${lib}" Depends | grep -q 'libstdc++6' || fail "libftpdisk1 does not depend on libstdc++6"
  dpkg-deb -f "${dev}" Depends | grep -qx "libftpdisk1 (= ${version})" ||
    fail "libftpdisk-dev does not depend on libftpdisk1 (= ${version})"
  dpkg-deb -f "${tool}" Depends | grep -q "libftpdisk1 (= ${version})" ||
    fail "ftpdisk does not depend on libftpdisk1 (= ${version})"
  local control=${dir}/control-libftpdisk1
  rm -rf "${control}"
  dpkg-deb -e "${lib}" "${control}"
  grep -qx "libftpdisk 1 libftpdisk1 (>= ${version})" "${control}/shlibs" || fail "libftpdisk1's shlibs file"
  head -n 1 "${control}/symbols" | grep -qx 'libftpdisk.so.1 libftpdisk1 #MINVER#' ||
    fail "libftpdisk1's symbols file"
  grep -qx 'activate-noawait ldconfig' "${control}/triggers" || fail "libftpdisk1's ldconfig trigger"

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
  [ -f "${libdir}/cmake/ftpdisk/ftpdiskConfig.cmake" ] || fail "no CMake package"
  grep -qx 'Libs: -L${libdir} -lftpdisk' "${libdir}/pkgconfig/ftpdisk.pc" || fail "no pkg-config file"

  # The command: its type, its private host library, its manual page.
  file -b "${root}/usr/bin/ftpdisk" | grep -q "ELF .* ${machine}" || fail "usr/bin/ftpdisk is not ${machine} code"
  [ -f "${libdir}/ftpdisk/libftpdisk_host.so" ] || fail "ftpdisk lacks its host library"
  LC_ALL=C readelf -d "${root}/usr/bin/ftpdisk" | grep -q 'RUNPATH.*\$ORIGIN/../lib/'"${triplet}"'/ftpdisk' ||
    fail "usr/bin/ftpdisk does not find its host library through its run path"
  [ -f "${root}/usr/share/man/man1/ftpdisk.1.gz" ] || fail "no manual page"
  say "${arch}: contents checked"
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
  check_packages "${arch}" "${build}/packages" "${cross}" "${machine}"
  run_lintian "${build}/packages"
  say "${arch}: done in $((SECONDS - started)) s: $(cd "${build}/packages" && ls ./*.deb | tr '\n' ' ')"
done
