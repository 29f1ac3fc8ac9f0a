#!/usr/bin/env bash
# scripts/install-deps.sh, task by task, in its dry run on a machine taken as
# fresh (FTPDISK_DEPS_DRY_RUN=fresh: it changes nothing and prints every
# command it would run): the packages each task installs, that only `test`
# makes the FTP user or adds a source list, that `package amd64` asks for
# nothing beyond the build and package tools, that armhf (package armhf and
# test) downloads and unpacks libssl-dev:armhf and libssl3:armhf into a folder
# of its own and installs no armhf OpenSSL, that the scripts ask for their
# own task; then the armhf OpenSSL's unpack against a stand-in apt-get: once,
# with libssl3's shlibs and symbols kept, and not again when present; then its apt-get update against a stand-in apt-get whose update
# fails like a mirror caught mid-sync.
# Prints one line per finding and exits 1 when there is one.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
script=${root}/scripts/install-deps.sh
failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

# The dry run's output for the arguments.
plan() { FTPDISK_DEPS_DRY_RUN=fresh "${script}" "$@" 2>&1; }

# The packages of the plan's apt-get install line, sorted, one line.
installs() {
  sed -n 's/^install-deps: would run: apt-get install -y --no-install-recommends //p' <<<"$1" |
    tr ' ' '\n' | sed '/^$/d' | LC_ALL=C sort | tr '\n' ' '
}

sorted() { printf '%s\n' "$@" | LC_ALL=C sort | tr '\n' ' '; }

build_tools=(cmake ninja-build g++)
build=("${build_tools[@]}" libgtest-dev libgmock-dev libbenchmark-dev libssl-dev openssl)
package_tools=(libssl-dev dpkg-dev lintian file)
armhf=(g++-arm-linux-gnueabihf libc6-dev-armhf-cross libc6:armhf libstdc++6:armhf libgcc-s1:armhf)

armhf_openssl_download='would run: apt-get download libssl-dev:armhf libssl3:armhf, then dpkg-deb -x into /opt/ftpdisk-armhf-openssl'

# expect_task <label> <expected packages (one word)> <makes user: yes|no> <adds armhf: yes|no> <args...>
expect_task() {
  local label=$1 expected=$2 user=$3 arch=$4
  shift 4
  local out status=0
  out=$(plan "$@") || status=$?
  [ ${status} -eq 0 ] || fail "${label}: the dry run ended with status ${status}"
  local got
  got=$(installs "${out}")
  [ "${got}" = "${expected}" ] || fail "${label}: installs [${got}], not [${expected}]"
  if grep -q 'would run: useradd' <<<"${out}"; then
    [ "${user}" = yes ] || fail "${label}: makes the local user rec"
  else
    [ "${user}" = no ] || fail "${label}: does not make the local user rec"
  fi
  if grep -q 'would run: dpkg --add-architecture armhf' <<<"${out}"; then
    [ "${arch}" = yes ] || fail "${label}: adds the armhf architecture"
  else
    [ "${arch}" = no ] || fail "${label}: does not add the armhf architecture"
  fi
  # armhf's OpenSSL is the one download besides the test task's servers.
  if grep -qxF "install-deps: ${armhf_openssl_download}" <<<"${out}"; then
    [ "${arch}" = yes ] || fail "${label}: unpacks the armhf OpenSSL"
  else
    [ "${arch}" = no ] || fail "${label}: does not unpack the armhf OpenSSL"
  fi
  if grep 'would run: apt-get install' <<<"${out}" | grep -qE 'libssl[^ ]*:armhf'; then
    fail "${label}: installs an armhf OpenSSL package"
  fi
  if [ "${user}" = no ] &&
     grep -vxF "install-deps: ${armhf_openssl_download}" <<<"${out}" |
       grep -qE 'sources.list|apt-get (source|download)|chpasswd'; then
    fail "${label}: adds a source list, downloads or builds a server, or sets a password"
  fi
  echo "ok ${label}: $(wc -w <<<"${got}") packages; makes the user rec: ${user}; adds armhf: ${arch}"
}

expect_task "build" "$(sorted "${build[@]}")" no no build
expect_task "package amd64" "$(sorted "${build_tools[@]}" "${package_tools[@]}")" no no package amd64
expect_task "package armhf" "$(sorted "${build_tools[@]}" "${package_tools[@]}" "${armhf[@]}")" no yes \
  package armhf
expect_task "package (both)" "$(sorted "${build_tools[@]}" "${package_tools[@]}" "${armhf[@]}")" no yes \
  package
expect_task "demo" "$(sorted "${build[@]}" python3-pyftpdlib)" no no demo

# test: everything the other tasks install and what only the tests need.
out=$(plan test)
test_packages=$(installs "${out}")
for p in "${build[@]}" "${package_tools[@]}" "${armhf[@]}" python3-pyftpdlib clang \
         clang-format-14 clang-tidy-14 vsftpd qemu-user doxygen pkgconf openssl python3-openssl; do
  grep -qw -- "${p}" <<<"${test_packages}" || fail "test: does not install ${p}"
done
grep -q 'would run: useradd --create-home --shell /bin/sh rec' <<<"${out}" ||
  fail "test: does not make the local user rec"
grep -q 'would run: apt-get download proftpd-core' <<<"${out}" || fail "test: does not unpack proftpd"
grep -q 'would run: apt-get download proftpd-mod-crypto' <<<"${out}" ||
  fail "test: does not unpack proftpd's TLS module"
grep -q 'would run: apt-get source busybox' <<<"${out}" || fail "test: does not build busybox"
[ "$(plan)" = "${out}" ] || fail "no task named is not the same as test"
echo "ok test: $(wc -w <<<"${test_packages}") packages, the user rec, the unpacked servers"
grep -qxF "install-deps: ${armhf_openssl_download}" <<<"${out}" || fail "test: does not unpack the armhf OpenSSL"
grep 'would run: apt-get install' <<<"${out}" | grep -qE 'libssl[^ ]*:armhf' &&
  fail "test: installs an armhf OpenSSL package"
echo "ok test: the armhf OpenSSL unpacked, not installed"

# The scripts ask for their own task: package.sh for package with its
# architectures, demo.sh for demo; test.sh for the default.
grep -qx 'scripts/install-deps.sh package "${arches\[@\]}"' "${root}/scripts/package.sh" ||
  fail "scripts/package.sh does not ask install-deps.sh for the package task"
grep -q '^timeout [0-9]* scripts/install-deps.sh demo$' "${root}/scripts/demo.sh" ||
  fail "scripts/demo.sh does not ask install-deps.sh for the demo task"
grep -qE 'scripts/install-deps.sh( test)?$' "${root}/scripts/test.sh" ||
  fail "scripts/test.sh does not ask install-deps.sh for its default task, test"

status=0
FTPDISK_DEPS_DRY_RUN=fresh "${script}" deploy >/dev/null 2>&1 || status=$?
[ ${status} -eq 2 ] || fail "an unknown task ended with status ${status}, not 2"

# apt-get update failing twice (one index mid-sync): tried once more, then
# the install goes on and the index that was skipped is named.
work=$(mktemp -d)
trap 'rm -rf "${work}"' EXIT
cat >"${work}/apt-get" <<'STUB'
#!/bin/sh
echo "$*" >>"$(dirname "$0")/calls"
if [ "$1" = update ]; then
  echo "Hit:1 http://deb.debian.org/debian bookworm InRelease"
  echo "Err:5 http://deb.debian.org/debian bookworm/main amd64 Packages"
  echo "  File has unexpected size (8791524 != 8791456). Mirror sync in progress? [IP: 151.101.2.132 80]"
  echo "E: Failed to fetch http://deb.debian.org/debian/dists/bookworm/main/binary-amd64/by-hash/SHA256/0a1b  File has unexpected size (8791524 != 8791456). Mirror sync in progress? [IP: 151.101.2.132 80]"
  echo "E: Some index files failed to download. They have been ignored, or old ones used instead."
  exit 100
fi
STUB
chmod +x "${work}/apt-get"
update_out=$(
  # shellcheck source=/dev/null
  source "${script}"
  apt_get=${work}/apt-get
  sudo_cmd=
  retry_seconds=0
  dry_run=
  apt_update_once
  echo "went on"
) || fail "apt_update_once ended the script after two failed updates"
[ "$(grep -c '^update$' "${work}/calls")" = 2 ] ||
  fail "apt-get update was run $(grep -c '^update$' "${work}/calls") times, not twice"
grep -q '^went on$' <<<"${update_out}" || fail "the install did not go on after two failed updates"
grep -q '^install-deps: skipped: Err:5 http://deb.debian.org/debian bookworm/main amd64 Packages$' \
  <<<"${update_out}" || fail "install-deps did not say which index it skipped: ${update_out}"
grep -q '^install-deps: skipped: E: Failed to fetch http://deb.debian.org/debian/dists/bookworm/main/binary-amd64' \
  <<<"${update_out}" || fail "install-deps did not say which file it could not fetch"
echo "ok apt-get update: tried twice, went on, named the skipped index"

# The armhf OpenSSL: apt-get download (a stand-in that hands over two small
# packages made here, laid out like Debian's) and dpkg-deb -x into the folder;
# libssl3's shlibs and symbols kept in DEBIAN/ for dpkg-shlibdeps; the version
# stamped; a second run finds it and downloads nothing.
make_deb() {
  local name=$1 dir=${work}/pkg-$1
  mkdir -p "${dir}/DEBIAN"
  printf 'Package: %s\nVersion: 3.0.99-1\nArchitecture: armhf\nMaintainer: t <t@example.org>\nDescription: t\n' \
    "${name}" >"${dir}/DEBIAN/control"
  shift
  local file
  for file in "$@"; do
    mkdir -p "$(dirname "${dir}/${file}")"
    echo "${name}" >"${dir}/${file}"
  done
  dpkg-deb --root-owner-group -Zgzip --build "${dir}" "${work}/debs/${name}_3.0.99-1_armhf.deb" >/dev/null
}
mkdir -p "${work}/debs" "${work}/apt-openssl"
make_deb libssl-dev usr/include/openssl/ssl.h usr/include/arm-linux-gnueabihf/openssl/configuration.h
make_deb libssl3 usr/lib/arm-linux-gnueabihf/libssl.so.3 DEBIAN/shlibs DEBIAN/symbols
cat >"${work}/apt-openssl/apt-get" <<STUB
#!/bin/sh
echo "\$*" >>"${work}/apt-openssl/calls"
[ "\$1" = download ] && cp "${work}"/debs/*.deb .
exit 0
STUB
chmod +x "${work}/apt-openssl/apt-get"
unpack() {
  (
    # shellcheck source=/dev/null
    source "${script}"
    # shellcheck disable=SC2034 # read by the sourced functions
    apt_get=${work}/apt-openssl/apt-get
    sudo_cmd=
    dry_run=
    updated=yes
    armhf_openssl_dir=${work}/openssl
    unpack_armhf_openssl
  ) 2>&1
}
first=$(unpack) || fail "the armhf OpenSSL's unpack failed: ${first}"
second=$(unpack) || fail "the armhf OpenSSL's second unpack failed: ${second}"
calls=$(cat "${work}/apt-openssl/calls")
[ "${calls}" = "download -o APT::Sandbox::User=root libssl-dev:armhf libssl3:armhf" ] ||
  fail "apt-get was called as [${calls}], not once to download libssl-dev:armhf libssl3:armhf"
for file in usr/include/openssl/ssl.h usr/include/arm-linux-gnueabihf/openssl/configuration.h \
            usr/lib/arm-linux-gnueabihf/libssl.so.3 DEBIAN/shlibs DEBIAN/symbols; do
  [ -f "${work}/openssl/${file}" ] || fail "the armhf OpenSSL's unpack lacks ${file}"
done
[ "$(cat "${work}/openssl/.ftpdisk-version" 2>/dev/null)" = 3.0.99-1 ] ||
  fail "the armhf OpenSSL's unpack is not stamped with libssl3's version"
grep -qx "install-deps: OpenSSL for armhf 3.0.99-1 already unpacked in ${work}/openssl" <<<"${second}" ||
  fail "the second unpack did not find the first: ${second}"
echo "ok armhf OpenSSL: downloaded and unpacked once, shlibs and symbols kept, found the second time"

if [ ${failures} -ne 0 ]; then
  echo "${failures} findings"
  exit 1
fi
echo "install-deps: every task installs what it needs and no more"
