#!/usr/bin/env bash
# The main job: shows ftpdisk keeping recordings on an FTP server, end to end.
#
# Installs what a fresh machine lacks, builds the ftpdisk command (release),
# starts a private FTP server on a free 127.0.0.1 port with a temporary root,
# then, through the command and so through the module a recorder loads:
#   1. checks the location (ftpdisk check),
#   2. records 3 cameras for about 10 seconds (ftpdisk record),
#   3. lists and sizes what was recorded (ftpdisk ls, du),
# and finally verifies the server's own disk: file count and total bytes
# equal the recorder's summary, and every byte follows the recorded pattern.
# The server is stopped and the temporary folder removed on any exit.
# Exit status 0 only if every step passed.
#
#   scripts/demo.sh                   # from the repository root, as root
#   FTPDISK_DEMO_SECONDS=30 scripts/demo.sh
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${FTPDISK_DEMO_SECONDS:-10}
cameras=3
rate_mbit=4
segment_seconds=4
python=/usr/bin/python3   # Debian's Python, which has pyftpdlib
step_limit=$((seconds + 120))

say() { printf '\n=== %s\n' "$*"; }
die() { printf 'demo: FAIL: %s\n' "$*" >&2; exit 1; }

say "installing what is missing"
timeout 1800 scripts/install-deps.sh demo

say "building the ftpdisk command (release preset)"
timeout 600 cmake --preset release >/dev/null
timeout 3600 cmake --build --preset release -j "${FTPDISK_JOBS:-2}" --target ftpdisk_tool
tool=build/release/tools/ftpdisk
[ -x "${tool}" ] || die "${tool} was not built"

work=$(mktemp -d /tmp/ftpdisk-demo.XXXXXX)
root="${work}/root"
mkdir -p "${root}" "${work}/logroot"
# The module's stall log goes below the work folder, not to the recorder's
# /mnt/mtd/log.
export FTPDISK_LOG_ROOT="${work}/logroot"
server_pid=""

cleanup() {
  local status=$?
  if [ -n "${server_pid}" ] && kill -0 "${server_pid}" 2>/dev/null; then
    kill -TERM "${server_pid}" 2>/dev/null || true
    for _ in $(seq 50); do
      kill -0 "${server_pid}" 2>/dev/null || break
      sleep 0.1
    done
    kill -KILL "${server_pid}" 2>/dev/null || true
    wait "${server_pid}" 2>/dev/null || true
  fi
  rm -rf "${work}"
  if [ ${status} -eq 0 ]; then
    printf '\ndemo: PASS\n'
  fi
  exit ${status}
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# A password of this run only; the command never prints it.
password=$(od -An -N6 -tx1 /dev/urandom | tr -d ' \n')

say "starting an FTP server on 127.0.0.1 with root ${root}"
if [ -f scripts/ftp-server.py ]; then
  "${python}" scripts/ftp-server.py --root "${root}" --port 0 --port-file "${work}/port" \
    --user rec --password "${password}" --log-file "${work}/server.log" \
    >"${work}/server.out" 2>&1 &
  server_pid=$!
else
  # Without the project's launcher: pick a free port, then start pyftpdlib.
  port=$("${python}" -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  "${python}" -m pyftpdlib -i 127.0.0.1 -p "${port}" -w -d "${root}" -u rec -P "${password}" \
    >"${work}/server.out" 2>&1 &
  server_pid=$!
  echo "${port}" >"${work}/port"
fi
port=""
for _ in $(seq 150); do
  kill -0 "${server_pid}" 2>/dev/null || { cat "${work}/server.out" >&2; die "the FTP server did not start"; }
  if [ -s "${work}/port" ] && (exec 3<>"/dev/tcp/127.0.0.1/$(cat "${work}/port")") 2>/dev/null; then
    port=$(cat "${work}/port")
    break
  fi
  sleep 0.1
done
[ -n "${port}" ] || die "the FTP server did not listen within 15 s"
# The password travels in the environment, not on the command line, where
# every local user could read it in the process list.
location="rec@ftp://127.0.0.1:${port}/video"
export FTPDISK_PASSWORD=${password}
echo "server up on port ${port}; location ${location} (password in FTPDISK_PASSWORD)"

run() {
  echo "\$ ftpdisk $*"
  timeout "${step_limit}" "${tool}" "$@"
}

say "1. check the location"
run check "${location}" || die "ftpdisk check failed"

say "2. record ${cameras} cameras for ${seconds} s at ${rate_mbit} Mbit/s each, ${segment_seconds} s segments"
if ! run record "${location}" --cameras "${cameras}" --seconds "${seconds}" \
    --rate "${rate_mbit}" --segment "${segment_seconds}" | tee "${work}/record.txt"; then
  die "ftpdisk record failed"
fi
files=$(awk '$1 == "files" { print $2 }' "${work}/record.txt")
bytes=$(awk '$1 == "bytes" { print $2 }' "${work}/record.txt")
[ -n "${files}" ] && [ -n "${bytes}" ] || die "no files/bytes figures in the record summary"

day=$(ls "${root}/video" | grep -E '^[0-9]{4}-[0-9]{2}-[0-9]{2}$' | head -1)
[ -n "${day}" ] || die "no day directory below /video on the server"

say "3. list and size what was recorded"
run ls "${location}" || die "ftpdisk ls failed"
run ls "${location}" "${day}" || die "ftpdisk ls failed"
run ls -l "${location}" "${day}/cam01" || die "ftpdisk ls -l failed"
run du "${location}" "${day}" | tee "${work}/du.txt" || die "ftpdisk du failed"
# The line after the echoed command: bytes, readable size, path.
total=$(awk -F '\t' '$1 ~ /^[0-9]+$/ { print $1; exit }' "${work}/du.txt")
[ -n "${total}" ] || die "no total in the du output"
echo "(du adds the directories' own listed sizes: ${total} = ${bytes} bytes of recordings + $((total - bytes)) for the directories inside ${day})"

say "4. verify the server's disk against the summary (${files} files, ${bytes} bytes)"
"${python}" - "${root}/video" "${files}" "${bytes}" "${cameras}" <<'PY'
import os
import re
import sys

top, want_files, want_bytes, cameras = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4])
# Byte i of a segment is (seed + i) mod 251, seed = (31 * camera + segment) mod 251.
period = bytes(range(251))
name = re.compile(r".*/\d{4}-\d\d-\d\d/cam(\d\d)/(\d{5})_\d{6}\.dat$")
files = 0
total = 0
cams = set()
bad = []
for folder, _, names in os.walk(top):
    for n in sorted(names):
        path = os.path.join(folder, n)
        m = name.match(path)
        if not m:
            bad.append("unexpected file " + path)
            continue
        camera, segment = int(m.group(1)), int(m.group(2))
        cams.add(camera)
        with open(path, "rb") as f:
            data = f.read()
        seed = (31 * camera + segment) % 251
        reps = (seed + len(data)) // 251 + 1
        if data != (period * reps)[seed:seed + len(data)]:
            bad.append("content of %s does not follow its pattern" % path)
        files += 1
        total += len(data)
print("on the server's disk: %d files, %d bytes, cameras %s" % (files, total, sorted(cams)))
if files != want_files:
    bad.append("%d files on disk, the summary says %d" % (files, want_files))
if total != want_bytes:
    bad.append("%d bytes on disk, the summary says %d" % (total, want_bytes))
if len(cams) != cameras:
    bad.append("%d camera folders on disk, %d cameras recorded" % (len(cams), cameras))
for b in bad:
    print("verify: " + b, file=sys.stderr)
if bad:
    sys.exit(1)
print("every file follows its pattern; counts and sizes match the summary")
PY
