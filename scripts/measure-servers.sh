#!/usr/bin/env bash
# Measures how pyftpdlib, vsftpd, proftpd, pure-ftpd and BusyBox ftpd answer the lines this
# module sends, and what the exported store returns on each, and writes the
# result to docs/SERVERS.md. The servers run on 127.0.0.1 only, started and
# stopped by the program itself; the daemons need root.
#
#   scripts/measure-servers.sh            # rewrite docs/SERVERS.md
#   scripts/measure-servers.sh --check    # only compare with docs/SERVERS.md
#
# FTPDISK_BUILD_DIR picks the build folder (default build/measure-servers).
set -euo pipefail
cd "$(dirname "$0")/.."

build=${FTPDISK_BUILD_DIR:-build/measure-servers}
jobs=${FTPDISK_JOBS:-2}

scripts/install-deps.sh
if [ ! -f "${build}/build.ninja" ]; then
  cmake -S . -B "${build}" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DFTPDISK_WERROR=ON \
    -DFTPDISK_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "${build}" -j "${jobs}" --target ftpdisk_server_matrix

matrix="${build}/tests/server-matrix/ftpdisk_server_matrix"
started=$SECONDS
if [ "${1:-}" = "--check" ]; then
  "${matrix}" --check docs/SERVERS.md
else
  "${matrix}" --out docs/SERVERS.md
  echo "measure-servers: wrote docs/SERVERS.md in $((SECONDS - started)) s"
fi
