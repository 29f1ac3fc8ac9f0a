#!/usr/bin/env bash
# Installs what a Debian 12 machine lacks for one task, and nothing more:
#
#   scripts/install-deps.sh [TASK] [ARCH...]
#
#   build    compilers and build tools, GoogleTest and Google Benchmark,
#            OpenSSL 3 (libssl-dev) and the openssl command: what the
#            presets' builds need (cmake --preset debug, release, ...)
#   package  the build tools, libssl-dev and the Debian package tools
#            (dpkg-dev, lintian, file) for scripts/package.sh; with the
#            architecture armhf (named, or no architecture named) also the
#            armhf cross compiler and the armhf C and C++ runtime libraries,
#            whose dependency information dpkg-shlibdeps reads (armhf is
#            added to dpkg's architectures for them; nothing runs them), and
#            OpenSSL 3 for armhf, unpacked into ${FTPDISK_ARMHF_OPENSSL_DIR}
#            (default /opt/ftpdisk-armhf-openssl; see unpack_armhf_openssl)
#   demo     the build tools and pyftpdlib, the FTP server scripts/demo.sh
#            starts
#   test     everything scripts/test.sh runs (the default): all of the above,
#            clang with clang-format and clang-tidy, qemu-user for the armhf
#            tests, the real FTP servers the server tests start on loopback,
#            curl (the peer client of bench/peers), gnuplot for the soak's
#            plot, pkg-config and doxygen for the packages step, openssl
#            (the command that makes the TLS servers' certificates) and
#            pyOpenSSL (pyftpdlib's TLS), proftpd's TLS module, and the
#            local user "rec" with password "pw" that the server tests log in
#            as (vsftpd authenticates local users only). Only this task makes
#            that user, adds a source list or builds anything.
#
# The three FTP daemons of `test` conflict with each other as Debian packages
# (each provides ftp-server), so vsftpd is installed the usual way and proftpd
# and pure-ftpd are unpacked from their .deb files into ${FTPDISK_SERVERS_DIR}
# (default /opt/ftpdisk-servers), with the libraries they need installed as
# ordinary packages; proftpd's TLS module (mod_tls.so, in proftpd-mod-crypto)
# is unpacked the same way beside proftpd-core. BusyBox's ftpd is not in Debian's busybox build, so it is
# built from Debian's busybox source package with just the applets it needs
# (ftpd, tcpsvd, ls; well under a minute) into ${FTPDISK_SERVERS_DIR}/busybox.
# None of them runs as a service: the tests start their own instances on
# 127.0.0.1 and stop them again.
#
# Idempotent: when everything is present it only checks and prints. A failed
# `apt-get update` (a mirror caught mid-sync fails one index for hours) is
# tried once more; then the install goes on with the lists apt has, says
# which indexes it could not fetch, and apt-get install decides.
#
# FTPDISK_DEPS_DRY_RUN=1 changes nothing: it prints every command that would
# change the machine ("would run: ...") and the task's package list.
# FTPDISK_DEPS_DRY_RUN=fresh does the same as if the machine were a fresh
# Debian 12: none of the packages, servers, architectures or users there yet.
set -euo pipefail

servers_dir=${FTPDISK_SERVERS_DIR:-/opt/ftpdisk-servers}
# Must match FTPDISK_ARMHF_OPENSSL_DIR's default in cmake/armhf-toolchain.cmake.
armhf_openssl_dir=${FTPDISK_ARMHF_OPENSSL_DIR:-/opt/ftpdisk-armhf-openssl}
dry_run=${FTPDISK_DEPS_DRY_RUN:-}
apt_get=apt-get
retry_seconds=5
export DEBIAN_FRONTEND=noninteractive

say() { echo "install-deps: $*"; }

if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=sudo
else
  sudo_cmd=
fi

# What the presets' builds need: OpenSSL 3 for the module's TLS (FTPDISK_TLS),
# and the openssl command, with which the TLS tests make their certificates.
build_packages=(cmake ninja-build g++ libgtest-dev libgmock-dev libbenchmark-dev
  libssl-dev openssl)
# scripts/package.sh: the build tools, OpenSSL 3 and the package tools; nm,
# readelf and c++filt come with g++ (binutils).
package_packages=(cmake ninja-build g++ libssl-dev dpkg-dev lintian file)
package_armhf_packages=(g++-arm-linux-gnueabihf libc6-dev-armhf-cross
  libc6:armhf libstdc++6:armhf libgcc-s1:armhf)
# Downloaded and unpacked into ${armhf_openssl_dir}, not installed.
armhf_openssl_packages=(libssl-dev:armhf libssl3:armhf)
# scripts/demo.sh
demo_packages=("${build_packages[@]}" python3-pyftpdlib)
# Everything else scripts/test.sh runs. The libraries of the two unpacked
# daemons are listed here as well, because nothing else would pull them in.
test_packages=(
  clang
  # scripts/lint.sh
  clang-format-14 clang-tidy-14
  vsftpd
  # the peer client of the side-by-side benchmark (bench/peers)
  curl
  # proftpd-core's libraries
  libacl1 libcap2 libcrypt1 libhiredis0.14 libidn2-0 libmemcached11
  libmemcachedutil2 libncursesw6 libpam0g libpcre2-8-0 libpcre2-posix3
  libssl3 libtinfo6 zlib1g
  # pure-ftpd's libraries
  libsodium23
  # the TLS servers: their certificates, pyftpdlib's TLS
  openssl python3-openssl
  # building BusyBox's ftpd from its Debian source package
  make gcc bzip2 libcrypt-dev
  # running the armhf tests
  qemu-user
  # the packages step: the downstream recorder's pkg-config build, the API reference
  pkgconf doxygen
  # the soak's plot (scripts/soak.sh)
  gnuplot-nox
)

# Packages unpacked into ${servers_dir}/<package> instead of installed.
unpacked=(proftpd-core proftpd-mod-crypto pure-ftpd)

fresh() { [ "${dry_run}" = fresh ]; }
dry() { [ -n "${dry_run}" ]; }

# Runs a command that changes the machine (as root), or says it would.
change() {
  if dry; then
    say "would run: $*"
  else
    ${sudo_cmd} "$@"
  fi
}

installed() {
  fresh && return 1
  dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q '^install ok installed$'
}

updated=no
apt_update_once() {
  [ "${updated}" = no ] || return 0
  updated=yes
  if dry; then
    say "would run: ${apt_get} update (once more after ${retry_seconds} s if it fails)"
    return 0
  fi
  say "apt-get update"
  local log status=0
  log=$(mktemp)
  ${sudo_cmd} "${apt_get}" update 2>&1 | tee "${log}" || status=$?
  if [ "${status}" -ne 0 ]; then
    say "apt-get update failed (${status}); trying once more in ${retry_seconds} s"
    sleep "${retry_seconds}"
    status=0
    ${sudo_cmd} "${apt_get}" update 2>&1 | tee "${log}" || status=$?
    if [ "${status}" -ne 0 ]; then
      say "apt-get update failed again (${status}): going on with the package lists apt has;" \
        "apt-get install decides whether what is needed can be had"
      # Err: names each index that was not fetched, E: Failed to fetch its URL.
      local skipped
      skipped=$(grep -E '^(Err:|E: Failed to fetch)' "${log}" || true)
      if [ -n "${skipped}" ]; then
        while IFS= read -r line; do say "skipped: ${line}"; done <<<"${skipped}"
      else
        say "skipped: the whole update (apt-get named no index)"
      fi
    fi
  fi
  rm -f "${log}"
}

# Installs the packages of `wanted` that are missing. No daemon may start
# while it runs: policy-rc.d forbids service starts for the duration when the
# machine has no such policy of its own.
install_packages() {
  local missing=() p
  for p in "$@"; do
    installed "${p}" || missing+=("${p}")
  done
  if [ ${#missing[@]} -eq 0 ]; then
    say "all $# packages present"
    return 0
  fi
  apt_update_once
  say "installing: ${missing[*]}"
  if dry; then
    say "would run: ${apt_get} install -y --no-install-recommends ${missing[*]}"
    return 0
  fi
  local guard_created=no
  if [ ! -e /usr/sbin/policy-rc.d ]; then
    say "forbidding service starts during the install (temporary /usr/sbin/policy-rc.d)"
    printf '#!/bin/sh\nexit 101\n' | ${sudo_cmd} tee /usr/sbin/policy-rc.d >/dev/null
    ${sudo_cmd} chmod 755 /usr/sbin/policy-rc.d
    guard_created=yes
  fi
  local status=0
  ${sudo_cmd} "${apt_get}" install -y --no-install-recommends "${missing[@]}" || status=$?
  if [ "${guard_created}" = yes ]; then
    ${sudo_cmd} rm -f /usr/sbin/policy-rc.d
  fi
  if [ ${status} -ne 0 ]; then
    say "apt-get install failed (${status})"
    exit ${status}
  fi
}

add_armhf() {
  if ! fresh && dpkg --print-foreign-architectures | grep -qx armhf; then
    return 0
  fi
  say "adding armhf to dpkg's architectures"
  change dpkg --add-architecture armhf
  # The new architecture's lists come with the next update.
  updated=no
}

# OpenSSL 3 for the armhf builds (the armhf presets link the module against
# it), unpacked from Debian's libssl-dev:armhf and libssl3:armhf into
# ${armhf_openssl_dir} rather than installed: as a second architecture they
# would have to match the installed amd64 libssl3 version for version, which
# the mirror's armhf lists do not always offer (their security index may be
# missing or behind). The armhf toolchain file points CMake's FindOpenSSL at
# it, cmake/qemu-arm-run.sh the emulated programs' loader, and
# scripts/package.sh dpkg-shlibdeps, with libssl3's own shlibs and symbols
# files kept in DEBIAN/ there. A version stamp marks a complete unpack;
# delete the folder to unpack a newer one.
unpack_armhf_openssl() {
  local target=${armhf_openssl_dir} stamp=${armhf_openssl_dir}/.ftpdisk-version
  if ! fresh && [ -f "${stamp}" ] && [ -f "${target}/usr/include/openssl/ssl.h" ] &&
     [ -f "${target}/usr/lib/arm-linux-gnueabihf/libssl.so.3" ]; then
    say "OpenSSL for armhf $(cat "${stamp}") already unpacked in ${target}"
    return 0
  fi
  apt_update_once
  if dry; then
    say "would run: ${apt_get} download ${armhf_openssl_packages[*]}, then dpkg-deb -x into ${target}"
    return 0
  fi
  local work deb version=""
  work=$(mktemp -d)
  say "downloading ${armhf_openssl_packages[*]}"
  (cd "${work}" && "${apt_get}" download -o APT::Sandbox::User=root "${armhf_openssl_packages[@]}")
  ${sudo_cmd} rm -rf "${target}"
  ${sudo_cmd} mkdir -p "${target}/DEBIAN"
  for deb in "${work}"/*.deb; do
    say "unpacking $(dpkg-deb -f "${deb}" Package):armhf $(dpkg-deb -f "${deb}" Version) into ${target}"
    ${sudo_cmd} dpkg-deb -x "${deb}" "${target}"
    if [ "$(dpkg-deb -f "${deb}" Package)" = libssl3 ]; then
      version=$(dpkg-deb -f "${deb}" Version)
      ${sudo_cmd} dpkg-deb --ctrl-tarfile "${deb}" |
        ${sudo_cmd} tar -x -C "${target}/DEBIAN" --strip-components=1 ./shlibs ./symbols
    fi
  done
  if [ -z "${version}" ] || [ ! -f "${target}/usr/include/openssl/ssl.h" ] ||
     [ ! -f "${target}/usr/lib/arm-linux-gnueabihf/libssl.so.3" ]; then
    say "the armhf OpenSSL unpacked into ${target} is incomplete"
    exit 1
  fi
  echo "${version}" | ${sudo_cmd} tee "${stamp}" >/dev/null
  rm -rf "${work}"
}

# Unpacked daemons: one folder per package, stamped with the unpacked version.
# Delete the folder to unpack a newer one.
unpack_servers() {
  local p target stamp have work deb version
  for p in "${unpacked[@]}"; do
    target="${servers_dir}/${p}"
    stamp="${target}/.ftpdisk-version"
    have=""
    if ! fresh && [ -f "${stamp}" ]; then
      have=$(cat "${stamp}")
    fi
    if [ -n "${have}" ] && [ -d "${target}/usr" ]; then
      say "${p} ${have} already unpacked in ${target}"
      continue
    fi
    apt_update_once
    if dry; then
      say "would run: ${apt_get} download ${p}, then dpkg-deb -x into ${target}"
      continue
    fi
    work=$(mktemp -d)
    say "downloading ${p}"
    (cd "${work}" && "${apt_get}" download -o APT::Sandbox::User=root "${p}")
    deb=$(ls "${work}"/*.deb)
    version=$(dpkg-deb -f "${deb}" Version)
    say "unpacking ${p} ${version} into ${target}"
    ${sudo_cmd} mkdir -p "${servers_dir}"
    ${sudo_cmd} rm -rf "${target}"
    ${sudo_cmd} mkdir -p "${target}"
    ${sudo_cmd} dpkg-deb -x "${deb}" "${target}"
    echo "${version}" | ${sudo_cmd} tee "${stamp}" >/dev/null
    rm -rf "${work}"
  done
}

# BusyBox with ftpd, from Debian's source package (deb-src of the machine's
# own Debian release is added when no source list exists).
build_busybox() {
  local busybox_dir="${servers_dir}/busybox"
  if ! fresh && [ -x "${busybox_dir}/busybox" ] && [ -f "${busybox_dir}/.ftpdisk-version" ]; then
    say "busybox $(cat "${busybox_dir}/.ftpdisk-version") with ftpd already built in ${busybox_dir}"
    return 0
  fi
  if fresh || ! grep -rqsE '^(deb-src|Types:.*deb-src)' /etc/apt/sources.list /etc/apt/sources.list.d/; then
    local codename
    codename=$(. /etc/os-release && echo "${VERSION_CODENAME}")
    say "adding Debian's source list for ${codename} (/etc/apt/sources.list.d/ftpdisk-src.sources)"
    if dry; then
      say "would run: write /etc/apt/sources.list.d/ftpdisk-src.sources (deb-src ${codename} main)"
    else
      printf 'Types: deb-src\nURIs: http://deb.debian.org/debian\nSuites: %s\nComponents: main\nSigned-By: /usr/share/keyrings/debian-archive-keyring.gpg\n' \
        "${codename}" | ${sudo_cmd} tee /etc/apt/sources.list.d/ftpdisk-src.sources >/dev/null
    fi
    updated=no
  fi
  apt_update_once
  if dry; then
    say "would run: ${apt_get} source busybox, then build busybox with ftpd, tcpsvd and ls into ${busybox_dir}"
    return 0
  fi
  local work src version
  work=$(mktemp -d)
  say "fetching Debian's busybox source package"
  (cd "${work}" && "${apt_get}" source -o APT::Sandbox::User=root busybox >/dev/null)
  src=$(find "${work}" -maxdepth 1 -mindepth 1 -type d -name 'busybox-*' | head -n 1)
  version=$(cd "${work}" && ls busybox_*.dsc | sed 's/^busybox_//; s/\.dsc$//')
  say "building busybox ${version} with ftpd, tcpsvd and ls"
  (
    cd "${src}"
    make allnoconfig >/dev/null
    for option in BUSYBOX SHOW_USAGE FEATURE_VERBOSE_USAGE FTPD FEATURE_FTPD_WRITE \
                  FEATURE_FTPD_ACCEPT_BROKEN_LIST FEATURE_FTPD_AUTHENTICATION TCPSVD LS \
                  FEATURE_LS_TIMESTAMPS FEATURE_LS_USERNAME FEATURE_LS_FILETYPES \
                  FEATURE_LS_SORTFILES FEATURE_SHADOWPASSWDS USE_BB_PWD_GRP USE_BB_SHADOW; do
      sed -i "s/^# CONFIG_${option} is not set\$/CONFIG_${option}=y/" .config
    done
    # yes ends with SIGPIPE when oldconfig stops reading; that is expected.
    { yes '' || true; } | make oldconfig >/dev/null
    if ! make -j "${FTPDISK_JOBS:-2}" busybox >../build.log 2>&1; then
      tail -n 40 ../build.log
      exit 1
    fi
  )
  for applet in ftpd tcpsvd; do
    if ! "${src}/busybox" --list | grep -qx "${applet}"; then
      say "the busybox build lacks ${applet}"
      exit 1
    fi
  done
  ${sudo_cmd} rm -rf "${busybox_dir}"
  ${sudo_cmd} mkdir -p "${busybox_dir}"
  ${sudo_cmd} install -m 755 "${src}/busybox" "${busybox_dir}/busybox"
  echo "${version}" | ${sudo_cmd} tee "${busybox_dir}/.ftpdisk-version" >/dev/null
  rm -rf "${work}"
}

# Every unpacked program must find its libraries; say so loudly if not.
check_servers() {
  dry && return 0
  local exe
  for exe in "${servers_dir}/proftpd-core/usr/sbin/proftpd" \
             "${servers_dir}/proftpd-mod-crypto/usr/lib/proftpd/mod_tls.so" \
             "${servers_dir}/pure-ftpd/usr/sbin/pure-ftpd" \
             "${servers_dir}/pure-ftpd/usr/bin/pure-pw" \
             "${servers_dir}/busybox/busybox"; do
    # The module is a library (not executable); the programs must run.
    if [ ! -f "${exe}" ] || { [ "${exe%.so}" = "${exe}" ] && [ ! -x "${exe}" ]; }; then
      say "missing ${exe}"
      exit 1
    fi
    if ldd "${exe}" | grep -q 'not found'; then
      say "${exe} lacks libraries:"
      ldd "${exe}" | grep 'not found'
      exit 1
    fi
  done
}

# The FTP user of the server tests.
make_test_user() {
  if fresh || ! id rec >/dev/null 2>&1; then
    say "creating local user rec (password pw) for the FTP server tests"
    change useradd --create-home --shell /bin/sh rec
  fi
  if fresh || ! ${sudo_cmd} grep -q '^rec:[^!*:]' /etc/shadow; then
    say "setting the password of rec"
    if dry; then
      say "would run: chpasswd (rec:pw)"
    else
      echo 'rec:pw' | ${sudo_cmd} chpasswd
    fi
  fi
}

main() {
  local task=${1:-test}
  [ $# -eq 0 ] || shift
  local arches=("$@")
  case "${task}" in
    build | package | demo | test) ;;
    *)
      echo "usage: scripts/install-deps.sh [build|package|demo|test] [amd64] [armhf]" >&2
      exit 2
      ;;
  esac
  local arch want_armhf=no
  for arch in "${arches[@]}"; do
    case "${arch}" in
      amd64) ;;
      armhf) want_armhf=yes ;;
      *)
        echo "install-deps: unknown architecture ${arch} (amd64 or armhf)" >&2
        exit 2
        ;;
    esac
  done

  local wanted=()
  case "${task}" in
    build)
      want_armhf=no
      wanted=("${build_packages[@]}")
      ;;
    package)
      # Like scripts/package.sh: no architecture named means both.
      [ ${#arches[@]} -gt 0 ] || { arches=(amd64 armhf); want_armhf=yes; }
      wanted=("${package_packages[@]}")
      [ "${want_armhf}" = no ] || wanted+=("${package_armhf_packages[@]}")
      ;;
    demo)
      want_armhf=no
      wanted=("${demo_packages[@]}")
      ;;
    test)
      # Everything, armhf included whatever architectures were named.
      want_armhf=yes
      local p seen=" "
      for p in "${build_packages[@]}" "${package_packages[@]}" "${package_armhf_packages[@]}" \
               "${demo_packages[@]}" "${test_packages[@]}"; do
        case "${seen}" in *" ${p} "*) continue ;; esac
        seen+="${p} "
        wanted+=("${p}")
      done
      ;;
  esac
  if [ "${task}" = package ]; then
    say "task ${task} (${arches[*]})"
  else
    say "task ${task}"
  fi
  say "packages: ${wanted[*]}"

  [ "${want_armhf}" = no ] || add_armhf
  install_packages "${wanted[@]}"
  [ "${want_armhf}" = no ] || unpack_armhf_openssl
  if [ "${task}" = test ]; then
    unpack_servers
    build_busybox
    check_servers
    make_test_user
  fi
  say "done"
}

# Sourced (by its test), it only defines the above.
if [ "${BASH_SOURCE[0]}" = "$0" ]; then
  main "$@"
fi
