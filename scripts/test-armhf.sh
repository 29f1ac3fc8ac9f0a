#!/usr/bin/env bash
# Cross-builds everything for 32-bit ARM (armhf) with the "armhf" preset and
# runs its test preset under qemu-user: every test but the fault suite, the
# unit tests and the real-server tests alike (the servers themselves are
# programs of the build machine, started by the tests on 127.0.0.1). Between
# build and test it checks that the module is a 32-bit ARM object linked
# against the armhf OpenSSL 3 that scripts/install-deps.sh unpacks into
# ${FTPDISK_ARMHF_OPENSSL_DIR} (default /opt/ftpdisk-armhf-openssl). Exits
# non-zero when the build, the check or a test fails.
#
#   scripts/test-armhf.sh                  # configure, build, test
#   scripts/test-armhf.sh -L unit          # extra arguments go to ctest
#   FTPDISK_JOBS=4 scripts/test-armhf.sh   # parallel build and test jobs (default 2)
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=${FTPDISK_JOBS:-2}
preset=armhf

missing=()
for tool in arm-linux-gnueabihf-g++ arm-linux-gnueabihf-gcc qemu-arm cmake ninja; do
  command -v "${tool}" >/dev/null 2>&1 || missing+=("${tool}")
done
[ -d /usr/arm-linux-gnueabihf/lib ] || missing+=("/usr/arm-linux-gnueabihf (libc6-dev-armhf-cross)")
[ -f /usr/src/googletest/googletest/CMakeLists.txt ] || missing+=("/usr/src/googletest (libgtest-dev)")
# OpenSSL 3 for armhf, unpacked by install-deps.sh (cmake/armhf-toolchain.cmake).
openssl_dir=${FTPDISK_ARMHF_OPENSSL_DIR:-/opt/ftpdisk-armhf-openssl}
[ -f "${openssl_dir}/usr/lib/arm-linux-gnueabihf/libssl.so.3" ] ||
  missing+=("${openssl_dir} (OpenSSL 3 for armhf)")
if [ "${#missing[@]}" -ne 0 ]; then
  echo "test-armhf: missing: ${missing[*]}" >&2
  echo "test-armhf: run scripts/install-deps.sh first" >&2
  exit 2
fi

echo "=== ${preset}: configure and build"
started=$SECONDS
cmake --preset "${preset}" >/dev/null
cmake --build --preset "${preset}" -j "${jobs}"

# The module's shared library must be a 32-bit ARM object: a mistaken host
# compiler would otherwise go unnoticed until a recorder refuses to load it.
library=build/${preset}/src/libftpdisk.so
if ! LC_ALL=C readelf -h "${library}" | grep -q 'Machine:[[:space:]]*ARM$'; then
  echo "test-armhf: ${library} is not a 32-bit ARM object" >&2
  exit 1
fi
# With TLS built in (FTPDISK_TLS, on by default) it runs on libssl.so.3.
if grep -q '^FTPDISK_TLS:BOOL=ON$' "build/${preset}/CMakeCache.txt" &&
   ! LC_ALL=C readelf -d "${library}" | grep -q 'NEEDED.*\[libssl\.so\.3\]'; then
  echo "test-armhf: ${library} is built with TLS but does not link libssl.so.3" >&2
  exit 1
fi

echo "=== ${preset}: test under $(qemu-arm --version | head -n 1)"
ctest --preset "${preset}" -j "${jobs}" "$@"
echo "=== ${preset}: done in $((SECONDS - started)) s"
