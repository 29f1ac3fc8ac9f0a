#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine lacks to build and test ftpdisk:
# compilers and build tools, GoogleTest and Google Benchmark, the armhf cross
# toolchain with qemu-user, the real FTP servers the server tests start on
# loopback, curl (the peer client of bench/peers), gnuplot for the soak's plot,
# and the tools that make and check the Debian packages and the API reference.
# Idempotent: when everything is present it only checks and prints.
#
# The armhf packages' dependencies are worked out by dpkg-shlibdeps from the
# armhf C and C++ runtime libraries as Debian installs them for a second
# architecture, so armhf is added to dpkg's architectures and those three
# libraries are installed (in /usr/lib/arm-linux-gnueabihf; nothing runs them).
#
# The three FTP daemons conflict with each other as Debian packages (each
# provides ftp-server), so vsftpd is installed the usual way and proftpd and
# pure-ftpd are unpacked from their .deb files into ${FTPDISK_SERVERS_DIR}
# (default /opt/ftpdisk-servers), with the libraries they need installed as
# ordinary packages. BusyBox's ftpd is not in Debian's busybox build, so it is
# built from Debian's busybox source package with just the applets it needs
# (ftpd, tcpsvd, ls; well under a minute) into ${FTPDISK_SERVERS_DIR}/busybox.
# None of them runs as a service: the tests start their own instances on
# 127.0.0.1 and stop them again.
#
# The server tests log in as the local user "rec" with password "pw" (vsftpd
# authenticates local users only), so that user is created here too.
#
#   scripts/install-deps.sh
set -euo pipefail

servers_dir=${FTPDISK_SERVERS_DIR:-/opt/ftpdisk-servers}
export DEBIAN_FRONTEND=noninteractive

say() { echo "install-deps: $*"; }

if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=sudo
else
  sudo_cmd=
fi

# Packages installed the usual way. The libraries of the two unpacked daemons
# are listed here as well, because nothing else would pull them in.
packages=(
  cmake ninja-build g++ clang
  # scripts/lint.sh
  clang-format-14 clang-tidy-14
  libgtest-dev libgmock-dev libbenchmark-dev
  python3-pyftpdlib
  vsftpd
  # the peer client of the side-by-side benchmark (bench/peers)
  curl
  # proftpd-core's libraries
  libacl1 libcap2 libcrypt1 libhiredis0.14 libidn2-0 libmemcached11
  libmemcachedutil2 libncursesw6 libpam0g libpcre2-8-0 libpcre2-posix3
  libssl3 libtinfo6 zlib1g
  # pure-ftpd's libraries
  libsodium23
  # building BusyBox's ftpd from its Debian source package
  make gcc bzip2 dpkg-dev libcrypt-dev
  # cross build for the recorder's 32-bit ARM and running its tests
  g++-arm-linux-gnueabihf libc6-dev-armhf-cross qemu-user
  # Debian packages, their checks and the API reference
  lintian file pkgconf doxygen
  libc6:armhf libstdc++6:armhf libgcc-s1:armhf
  # the soak's plot (scripts/soak.sh)
  gnuplot-nox
)

# Packages unpacked into ${servers_dir}/<package> instead of installed.
unpacked=(proftpd-core pure-ftpd)

installed() {
  dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q '^install ok installed$'
}

updated=no
apt_update_once() {
  if [ "${updated}" = no ]; then
    say "apt-get update"
    # A mirror caught mid-sync fails one index ("File has unexpected size ...
    # Mirror sync in progress?", exit 100) for hours while every other list
    # is fine: try once more, then go on with the lists apt has and let
    # apt-get install decide whether what is needed can be had.
    if ! ${sudo_cmd} apt-get update; then
      say "apt-get update failed; trying once more in 5 s"
      sleep 5
      if ! ${sudo_cmd} apt-get update; then
        say "apt-get update failed again: going on with the package lists apt has (some indexes may be old or missing)"
      fi
    fi
    updated=yes
  fi
}

if ! dpkg --print-foreign-architectures | grep -qx armhf; then
  say "adding armhf to dpkg's architectures"
  ${sudo_cmd} dpkg --add-architecture armhf
fi

missing=()
for p in "${packages[@]}"; do
  installed "$p" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  apt_update_once
  say "installing: ${missing[*]}"
  # Debian starts a daemon right after installing it unless policy-rc.d says
  # no; no FTP service may run here, so forbid starts for the duration when
  # the machine has no such policy of its own.
  guard_created=no
  if [ ! -e /usr/sbin/policy-rc.d ]; then
    say "forbidding service starts during the install (temporary /usr/sbin/policy-rc.d)"
    printf '#!/bin/sh\nexit 101\n' | ${sudo_cmd} tee /usr/sbin/policy-rc.d >/dev/null
    ${sudo_cmd} chmod 755 /usr/sbin/policy-rc.d
    guard_created=yes
  fi
  status=0
  ${sudo_cmd} apt-get install -y --no-install-recommends "${missing[@]}" || status=$?
  if [ "${guard_created}" = yes ]; then
    ${sudo_cmd} rm -f /usr/sbin/policy-rc.d
  fi
  if [ ${status} -ne 0 ]; then
    say "apt-get install failed (${status})"
    exit ${status}
  fi
else
  say "all ${#packages[@]} packages present"
fi

# Unpacked daemons: one folder per package, stamped with the unpacked version.
# Delete the folder to unpack a newer one.
${sudo_cmd} mkdir -p "${servers_dir}"
for p in "${unpacked[@]}"; do
  target="${servers_dir}/${p}"
  stamp="${target}/.ftpdisk-version"
  have=""
  [ -f "${stamp}" ] && have=$(cat "${stamp}")
  if [ -n "${have}" ] && [ -d "${target}/usr" ]; then
    say "${p} ${have} already unpacked in ${target}"
    continue
  fi
  apt_update_once
  work=$(mktemp -d)
  say "downloading ${p}"
  (cd "${work}" && apt-get download -o APT::Sandbox::User=root "${p}")
  deb=$(ls "${work}"/*.deb)
  version=$(dpkg-deb -f "${deb}" Version)
  say "unpacking ${p} ${version} into ${target}"
  ${sudo_cmd} rm -rf "${target}"
  ${sudo_cmd} mkdir -p "${target}"
  ${sudo_cmd} dpkg-deb -x "${deb}" "${target}"
  echo "${version}" | ${sudo_cmd} tee "${stamp}" >/dev/null
  rm -rf "${work}"
done

# BusyBox with ftpd, from Debian's source package (deb-src of the machine's
# own Debian release is added when no source list exists).
busybox_dir="${servers_dir}/busybox"
if [ -x "${busybox_dir}/busybox" ] && [ -f "${busybox_dir}/.ftpdisk-version" ]; then
  say "busybox $(cat "${busybox_dir}/.ftpdisk-version") with ftpd already built in ${busybox_dir}"
else
  if ! grep -rqsE '^(deb-src|Types:.*deb-src)' /etc/apt/sources.list /etc/apt/sources.list.d/; then
    codename=$(. /etc/os-release && echo "${VERSION_CODENAME}")
    say "adding Debian's source list for ${codename} (/etc/apt/sources.list.d/ftpdisk-src.sources)"
    printf 'Types: deb-src\nURIs: http://deb.debian.org/debian\nSuites: %s\nComponents: main\nSigned-By: /usr/share/keyrings/debian-archive-keyring.gpg\n' \
      "${codename}" | ${sudo_cmd} tee /etc/apt/sources.list.d/ftpdisk-src.sources >/dev/null
    updated=no
  fi
  apt_update_once
  work=$(mktemp -d)
  say "fetching Debian's busybox source package"
  (cd "${work}" && apt-get source -o APT::Sandbox::User=root busybox >/dev/null)
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
fi

# Every unpacked program must find its libraries; say so loudly if not.
for exe in "${servers_dir}/proftpd-core/usr/sbin/proftpd" \
           "${servers_dir}/pure-ftpd/usr/sbin/pure-ftpd" \
           "${servers_dir}/pure-ftpd/usr/bin/pure-pw" \
           "${servers_dir}/busybox/busybox"; do
  if [ ! -x "${exe}" ]; then
    say "missing ${exe}"
    exit 1
  fi
  if ldd "${exe}" | grep -q 'not found'; then
    say "${exe} lacks libraries:"
    ldd "${exe}" | grep 'not found'
    exit 1
  fi
done

# The FTP user of the server tests.
if ! id rec >/dev/null 2>&1; then
  say "creating local user rec (password pw) for the FTP server tests"
  ${sudo_cmd} useradd --create-home --shell /bin/sh rec
fi
if ! ${sudo_cmd} grep -q '^rec:[^!*:]' /etc/shadow; then
  say "setting the password of rec"
  echo 'rec:pw' | ${sudo_cmd} chpasswd
fi

say "done"
