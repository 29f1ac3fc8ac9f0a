#!/usr/bin/env bash
# The packages as a recorder's firmware team uses them: unpacks the amd64
# packages into a fresh folder (dpkg -x, nothing is installed on the machine)
# and builds tests/downstream, a separate project, three times: with host
# classes of its own through find_package (CMAKE_PREFIX_PATH) and through
# pkg-config (PKG_CONFIG_PATH with the folder as the sysroot), and with the
# packaged POSIX host classes (ftpdisk::host of libftpdisk-host1) through
# find_package. Each build runs against a pyftpdlib server on 127.0.0.1, and
# the files on the server's disk are compared with what was written, byte for
# byte. The find_package builds also build the host conformance suite from
# libftpdisk-dev against their host classes and run it: every check must
# pass. Exits non-zero on any failure.
#
#   scripts/test-downstream.sh            # builds the amd64 packages first
#   scripts/test-downstream.sh --no-build # uses build/package/packages as they are
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=${FTPDISK_JOBS:-2}
say() { echo "downstream: $*"; }
fail() { echo "downstream: FAILED: $*" >&2; exit 1; }

if [ "${1:-}" != "--no-build" ]; then
  scripts/package.sh amd64
fi
packages=build/package/packages
version=$(sed -n 's/^project(ftpdisk VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
for name in libftpdisk1 libftpdisk-host1 libftpdisk-dev; do
  [ -f "${packages}/${name}_${version}_amd64.deb" ] || fail "no ${packages}/${name}_${version}_amd64.deb"
done

work=$(readlink -f build)/downstream
rm -rf "${work}"
mkdir -p "${work}/ftp" "${work}/local"
root=${work}/root
for name in libftpdisk1 libftpdisk-host1 libftpdisk-dev; do
  dpkg-deb -x "${packages}/${name}_${version}_amd64.deb" "${root}"
done
triplet=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
say "packages unpacked into ${root}"

# The FTP server, stopped on every way out of this script.
server_pid=
stop_server() {
  if [ -n "${server_pid}" ]; then
    kill "${server_pid}" 2>/dev/null || true
    wait "${server_pid}" 2>/dev/null || true
  fi
}
trap stop_server EXIT
/usr/bin/python3 scripts/ftp-server.py --root "${work}/ftp" --port 0 \
  --port-file "${work}/port" --user rec --password pw --log-file "${work}/ftp.log" &
server_pid=$!
# At most 20 s for the server to listen, asked 200 times.
for _ in $(seq 200); do
  [ -s "${work}/port" ] && break
  kill -0 "${server_pid}" 2>/dev/null || fail "the FTP server ended at start: $(tail -n 5 "${work}/ftp.log")"
  sleep 0.1
done
[ -s "${work}/port" ] || fail "the FTP server did not listen within 20 s"
port=$(cat "${work}/port")
say "pyftpdlib listens on 127.0.0.1:${port}"

# byte i = (factor * i + offset) mod 251, as tests/downstream/recorder.cpp writes
expected() {
  /usr/bin/python3 -c 'import sys; n, f, o = map(int, sys.argv[1:]); sys.stdout.buffer.write(bytes((f * i + o) % 251 for i in range(n)))' "$@"
}
expected 300000 7 3 >"${work}/clip.expected"
expected 70001 13 5 >"${work}/put.expected"

# run_consumer <how the module is found: cmake|pkg-config> <whose host: own|package>
run_consumer() {
  local find=$1 host=$2
  local how=${find}-${host} build=${work}/build-${find}-${host}
  say "${how}: configure and build tests/downstream"
  case "${find}" in
    cmake)
      cmake -S tests/downstream -B "${build}" -G Ninja -DDOWNSTREAM_FIND=cmake \
        -DDOWNSTREAM_HOST="${host}" -DCMAKE_PREFIX_PATH="${root}/usr" \
        >"${work}/${how}-configure.log" ||
        { cat "${work}/${how}-configure.log"; fail "${how}: configure"; }
      ;;
    pkg-config)
      # The .pc file names /usr like an installed one; the sysroot puts the
      # unpacked folder in front of its paths, as for a target's SDK.
      PKG_CONFIG_PATH="${root}/usr/lib/${triplet}/pkgconfig" PKG_CONFIG_SYSROOT_DIR="${root}" \
        cmake -S tests/downstream -B "${build}" -G Ninja -DDOWNSTREAM_FIND=pkg-config \
        -DDOWNSTREAM_HOST="${host}" >"${work}/${how}-configure.log" ||
        { cat "${work}/${how}-configure.log"; fail "${how}: configure"; }
      ;;
  esac
  cmake --build "${build}" -j "${jobs}"

  if [ "${find}" = cmake ]; then
    say "${how}: the host conformance suite against the ${host} host classes"
    local suite status=0
    suite=$(LD_LIBRARY_PATH="${root}/usr/lib/${triplet}" "${build}/downstream_host_conformance" 2>&1) ||
      status=$?
    printf '%s\n' "${suite}" | sed 's/^/  /'
    [ ${status} -eq 0 ] || fail "${how}: the host conformance suite failed (status ${status})"
  fi

  local folder=/downstream/${how}
  mkdir -p "${work}/local/${how}"
  say "${how}: run against 127.0.0.1:${port}"
  local output status=0
  output=$(LD_LIBRARY_PATH="${root}/usr/lib/${triplet}" "${build}/downstream_recorder" \
    "rec(pw)@ftp://127.0.0.1:${port}/rec" "${folder}" "${work}/local/${how}" 2>&1) || status=$?
  printf '%s\n' "${output}" | sed 's/^/  /'
  [ ${status} -eq 0 ] || fail "${how}: the recorder ended with status ${status}"
  printf '%s\n' "${output}" | grep -qx "module ${root}/usr/lib/${triplet}/libftpdisk.so.1" ||
    fail "${how}: the recorder did not run the packaged module"
  if [ "${host}" = package ]; then
    printf '%s\n' "${output}" | grep -qx "host ${root}/usr/lib/${triplet}/libftpdisk_host.so.1" ||
      fail "${how}: the recorder did not run the packaged host classes"
  else
    printf '%s\n' "${output}" | grep -qx "host ${build}/downstream_recorder" ||
      fail "${how}: the recorder did not run its own host classes"
  fi
  cmp "${work}/ftp${folder}/clip.ts" "${work}/clip.expected" ||
    fail "${how}: clip.ts on the server's disk differs from what was written"
  cmp "${work}/ftp${folder}/put.bin" "${work}/put.expected" ||
    fail "${how}: put.bin on the server's disk differs from the local file"
  say "${how}: the server's disk holds exactly the bytes written (clip.ts 300000, put.bin 70001)"
  local shown
  for shown in "wrong password" "server unreachable" "server refuses more connections" \
               "connection lost"; do
    printf '%s\n' "${output}" | grep -q "^ok   init .* shows \"${shown}\"" ||
      fail "${how}: the recorder could not show \"${shown}\" from the last error"
  done
  say "${how}: the last error showed wrong password, server unreachable, server refuses more connections and connection lost"
}

started=$SECONDS
run_consumer cmake own
run_consumer pkg-config own
run_consumer cmake package
say "all three consumers passed in $((SECONDS - started)) s"
