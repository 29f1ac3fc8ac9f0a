#!/usr/bin/env bash
# The side-by-side benchmark with everything it needs: installs the packages
# (scripts/install-deps.sh: vsftpd, curl, the user rec), builds the store's
# programs with the release preset, prints the module's stripped size
# (bench/footprint.sh) and runs bench/peers/peers.py, which starts vsftpd on
# 127.0.0.1 with a tmpfs root and prints the table. Needs root (vsftpd).
#
#   bench/peers/run.sh                 # 3 interleaved rounds, the full sizes
#   bench/peers/run.sh --runs 5        # more rounds; other options: peers.py --help
#   bench/peers/run.sh --tiny          # one round on tiny inputs (checks bytes only)
set -euo pipefail
cd "$(dirname "$0")/../.."
jobs=${FTPDISK_JOBS:-2}

scripts/install-deps.sh >/dev/null
cmake --preset release >/dev/null
cmake --build --preset release -j "${jobs}" --target ftpdisk_peers_store ftpdisk_peers_tcp >/dev/null
echo "machine: $(nproc) cores, $(awk -F': ' '/model name/ {print $2; exit}' /proc/cpuinfo)," \
  "$(awk '/MemTotal/ {printf "%.0f GiB", $2 / 1048576}' /proc/meminfo), kernel $(uname -r)," \
  "load $(cut -d' ' -f1-3 /proc/loadavg)"
echo "commit: $(git rev-parse --short HEAD 2>/dev/null || echo unknown)"
echo
bench/footprint.sh
echo
exec /usr/bin/python3 bench/peers/peers.py \
  --store build/release/bench/peers/ftpdisk_peers_store \
  --tcp build/release/bench/peers/ftpdisk_peers_tcp "$@"
