#!/usr/bin/env bash
# Size of the module as a recorder ships it: libftpdisk.so built with the
# release options for x86-64 and for 32-bit ARM (armhf), stripped of symbols
# and debugging sections, in bytes. Builds only the library (folders
# build/release and build/armhf-release); the memory figures (RSS per open
# handle, RSS of an idle store) come from bench/peers/run.sh.
#
#   bench/footprint.sh
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${FTPDISK_JOBS:-2}

strip_size() {  # strip_size STRIP LIBRARY
  local copy
  copy=$(mktemp)
  "$1" --strip-all -o "${copy}" "$2"
  stat -c %s "${copy}"
  rm -f "${copy}"
}

cmake --preset release >/dev/null
cmake --build --preset release -j "${jobs}" --target ftpdisk >/dev/null
x86=$(strip_size strip build/release/src/libftpdisk.so)

if [ ! -f build/armhf-release/build.ninja ]; then
  cmake -S . -B build/armhf-release -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake -DFTPDISK_WERROR=ON \
    -DFTPDISK_BUILD_TESTS=OFF -DFTPDISK_BUILD_TOOLS=OFF -DFTPDISK_BUILD_BENCH=OFF >/dev/null
fi
cmake --build build/armhf-release -j "${jobs}" --target ftpdisk >/dev/null
arm=$(strip_size arm-linux-gnueabihf-strip build/armhf-release/src/libftpdisk.so)

echo "| build | stripped libftpdisk.so |"
echo "|---|---|"
printf '| x86-64, release (%s) | %s bytes (%.1f KiB) |\n' "$(g++ -dumpfullversion)" "${x86}" \
  "$(awk "BEGIN{print ${x86}/1024}")"
printf '| armhf, release (%s) | %s bytes (%.1f KiB) |\n' \
  "$(arm-linux-gnueabihf-g++ -dumpfullversion)" "${arm}" "$(awk "BEGIN{print ${arm}/1024}")"
