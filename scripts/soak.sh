#!/usr/bin/env bash
# Soak: runs `ftpdisk record` as a recorder for HOURS (fractions allowed:
# 0.05 is 3 minutes) against a vsftpd on 127.0.0.1, samples the process's
# descriptors, threads and resident memory every 10 s into a CSV, draws them
# into a PNG beside it, and judges whether any of the three grows after the
# first minute.
#
#   scripts/soak.sh HOURS [OUTDIR]        # OUTDIR default build/soak
#
# The recorder: 16 cameras at 1 Mbit/s each in 4 s segments; a new day
# directory every 30 s with the two most recent kept (older days removed),
# listing and size of the base every 10 s; every camera pauses for 40 s after
# each 64 s of recording, so that the store's idle connections are ended
# after 30 s and new ones are made when recording resumes.
#
# Judgement (samples after the first 60 s against those of the first 60 s,
# when every camera records and every kind of call has been made):
#   descriptors, threads  growth: a level above the first minute's highest
#                         held by two samples in a row. A single sample above
#                         it is a call caught in flight (a listing's data
#                         connection, say); it is reported, not failed.
#   resident memory       growth: the highest sample after the first minute
#                         above the first minute's highest by more than
#                         max(2 MiB, 10 %), or, over at least 30 minutes, a
#                         least-squares slope above 1 MiB per hour.
# record's own verdict must be PASS too. Exit status 0 only when all holds.
#
# Files in OUTDIR: soak.csv (seconds,fds,threads,rss_kib), soak.png,
# record.txt (record's output), server.txt, verdict.txt.
#
# Environment: FTPDISK_SOAK_PRESET (default release) is the build preset
# whose ftpdisk and ftpdisk-soak-server are built and used.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
  echo "usage: scripts/soak.sh HOURS [OUTDIR]" >&2
  exit 2
fi
hours=$1
out=${2:-build/soak}
if ! seconds=$(awk -v h="${hours}" 'BEGIN { if (h !~ /^[0-9]*\.?[0-9]+$/ || h * 3600 < 90) exit 1;
                                            printf "%d", h * 3600 + 0.5 }'); then
  echo "soak: HOURS must be a number of at least 0.025 (90 s), not \"${hours}\"" >&2
  exit 2
fi
preset=${FTPDISK_SOAK_PRESET:-release}
interval=10
first_minute=60

say() { echo "soak: $*"; }

cmake --preset "${preset}" >/dev/null
cmake --build --preset "${preset}" -j "${FTPDISK_JOBS:-2}" --target ftpdisk_tool ftpdisk_soak_server \
  >/dev/null
build=build/${preset}
tool=${build}/tools/ftpdisk
server_program=${build}/tests/support/ftpdisk-soak-server

mkdir -p "${out}"
out=$(cd "${out}" && pwd)
csv=${out}/soak.csv
rm -f "${csv}" "${out}/soak.png" "${out}/record.txt" "${out}/server.txt" "${out}/verdict.txt"

server_pid=
record_pid=
# Ends what this script started, whichever way it ends.
cleanup() {
  if [ -n "${record_pid}" ] && kill -0 "${record_pid}" 2>/dev/null; then
    kill -TERM "${record_pid}" 2>/dev/null || true
    wait "${record_pid}" 2>/dev/null || true
  fi
  if [ -n "${server_pid}" ] && kill -0 "${server_pid}" 2>/dev/null; then
    kill -TERM "${server_pid}" 2>/dev/null || true
    wait "${server_pid}" 2>/dev/null || true
  fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# The server prints its location and "ready" once vsftpd greets (it tries
# for at most 30 s); polled at most 40 s.
"${server_program}" --idle-timeout 600 >"${out}/server.txt" 2>&1 </dev/null &
server_pid=$!
for _ in $(seq 400); do
  grep -q '^ready$' "${out}/server.txt" && break
  kill -0 "${server_pid}" 2>/dev/null || break
  sleep 0.1
done
if ! grep -q '^ready$' "${out}/server.txt"; then
  say "the server did not start:"
  cat "${out}/server.txt"
  exit 1
fi
location=$(sed -n 's/^location //p' "${out}/server.txt")
root=$(sed -n 's/^root //p' "${out}/server.txt")
say "vsftpd at ${location#*@}, root ${root}"

mkdir -p "${out}/log"
FTPDISK_LOG_ROOT=${out}/log "${tool}" record "${location}/soak" \
  --cameras 16 --rate 1 --segment 4 --seconds "${seconds}" \
  --day-seconds 30 --keep-days 2 --list-every 10 --pause-every 64 --pause-for 40 \
  --samples 200 >"${out}/record.txt" 2>&1 </dev/null &
record_pid=$!
started=$(date +%s.%N)
say "record (pid ${record_pid}) for ${seconds} s; samples every ${interval} s into ${csv}"

echo "seconds,fds,threads,rss_kib" >"${csv}"
sample() {
  local at=$1 fds threads rss
  # The process may end between two reads: such a sample is dropped.
  fds=$(ls "/proc/${record_pid}/fd" 2>/dev/null | wc -l) || return 0
  threads=$(ls "/proc/${record_pid}/task" 2>/dev/null | wc -l) || return 0
  rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/${record_pid}/status" 2>/dev/null) || return 0
  [ -n "${rss}" ] && [ "${fds}" -gt 0 ] || return 0
  echo "${at},${fds},${threads},${rss}" >>"${csv}"
}
n=0
while kill -0 "${record_pid}" 2>/dev/null; do
  sample "$((n * interval))"
  n=$((n + 1))
  # Samples keep to a timetable of their own: the next one is due n
  # intervals after the start, however long this one took; the record
  # process is watched meanwhile so that its end is noticed within a second.
  while kill -0 "${record_pid}" 2>/dev/null; do
    left=$(awk -v s="${started}" -v now="$(date +%s.%N)" -v due="$((n * interval))" \
      'BEGIN { d = s + due - now; if (d <= 0) exit 1; printf "%.3f", (d > 1 ? 1 : d) }') || break
    sleep "${left}"
  done
done
record_status=0
wait "${record_pid}" || record_status=$?
record_pid=
kill -TERM "${server_pid}" 2>/dev/null || true
wait "${server_pid}" 2>/dev/null || true
server_pid=

# The judgement, written to verdict.txt and shown.
awk -F, -v first="${first_minute}" -v record_status="${record_status}" '
  NR == 1 { next }
  {
    t[++n] = $1; f[n] = $2; h[n] = $3; r[n] = $4
  }
  END {
    if (n == 0) { print "FAIL: no samples"; exit 1 }
    for (i = 1; i <= n; i++) {
      if (t[i] <= first) {
        if (f[i] > fmax) fmax = f[i]
        if (h[i] > hmax) hmax = h[i]
        if (r[i] > rmax) rmax = r[i]
        ++early
      } else {
        if (f[i] > fafter) fafter = f[i]
        if (h[i] > hafter) hafter = h[i]
        if (r[i] > rafter) rafter = r[i]
        if (!late++) { fmin = f[i]; hmin = h[i]; rmin = r[i] }
        if (f[i] < fmin) fmin = f[i]
        if (h[i] < hmin) hmin = h[i]
        if (r[i] < rmin) rmin = r[i]
        # least squares over the samples after the first minute
        sx += t[i]; sy += r[i]; sxx += t[i] * t[i]; sxy += t[i] * r[i]
      }
    }
    if (late < 2) { print "FAIL: fewer than two samples after the first minute"; exit 1 }
    fpersist = 0; hpersist = 0; fonce = 0; honce = 0
    for (i = 2; i <= n; i++) {
      if (t[i - 1] <= first) continue
      if (f[i] > fmax && f[i - 1] > fmax) fpersist = 1
      if (h[i] > hmax && h[i - 1] > hmax) hpersist = 1
    }
    for (i = 1; i <= n; i++) {
      if (t[i] <= first) continue
      if (f[i] > fmax) fonce++
      if (h[i] > hmax) honce++
    }
    slope = 0
    span = t[n] - first
    d = late * sxx - sx * sx
    if (d > 0) slope = (late * sxy - sx * sy) / d * 3600 / 1024   # MiB per hour
    tolerance = rmax * 0.10
    if (tolerance < 2048) tolerance = 2048
    rgrew = (rafter > rmax + tolerance)
    sgrew = (span >= 1800 && slope > 1)
    printf "samples      %d (%d in the first minute) over %.1f min\n", n, early, t[n] / 60
    printf "descriptors  first minute max %d; after it %d to %d (%d samples above, %s)\n",
      fmax, fmin, fafter, fonce, (fpersist ? "held: GROWS" : "none held")
    printf "threads      first minute max %d; after it %d to %d (%d samples above, %s)\n",
      hmax, hmin, hafter, honce, (hpersist ? "held: GROWS" : "none held")
    printf "rss          first minute max %.1f MiB; after it %.1f to %.1f MiB (limit %.1f); slope %+.2f MiB/h%s\n",
      rmax / 1024, rmin / 1024, rafter / 1024, (rmax + tolerance) / 1024, slope,
      (span >= 1800 ? " (limit 1)" : " (judged from 30 min on)")
    printf "record       exit status %d\n", record_status
    failed = (fpersist || hpersist || rgrew || sgrew || record_status != 0)
    if (!failed) { print "verdict: PASS"; exit 0 }
    why = ""
    if (fpersist) why = why "descriptors grow; "
    if (hpersist) why = why "threads grow; "
    if (rgrew) why = why "resident memory grows past the limit; "
    if (sgrew) why = why "resident memory keeps growing; "
    if (record_status != 0) why = why "record failed; "
    print "verdict: FAIL: " substr(why, 1, length(why) - 2)
    exit 1
  }' "${csv}" >"${out}/verdict.txt" && judged=0 || judged=$?

# The plot: three panels over minutes, the first minute shaded.
if command -v gnuplot >/dev/null; then
  gnuplot <<EOF || say "gnuplot failed; the CSV is complete"
set terminal pngcairo size 1000,900 font ",10"
set output "${out}/soak.png"
set datafile separator ","
set key off
set grid
set offsets 0, 0, graph 0.1, 0
set multiplot layout 3,1 title "ftpdisk record soak: 16 cameras, 4 s segments, vsftpd on 127.0.0.1 ($(date -u +%Y-%m-%d))"
set xlabel "minutes"
set object 1 rect from 0, graph 0 to ${first_minute}/60.0, graph 1 fc rgb "#eeeeee" behind
set ylabel "open descriptors"
set yrange [0:*]
plot "${csv}" using (\$1/60):2 every ::1 with linespoints pt 7 ps 0.4 lc rgb "#1f77b4"
set ylabel "threads"
plot "${csv}" using (\$1/60):3 every ::1 with linespoints pt 7 ps 0.4 lc rgb "#2ca02c"
set ylabel "resident memory (MiB)"
plot "${csv}" using (\$1/60):(\$4/1024) every ::1 with linespoints pt 7 ps 0.4 lc rgb "#d62728"
unset multiplot
EOF
else
  say "gnuplot is missing (scripts/install-deps.sh installs it); no plot"
fi

sed 's/^/soak: /' "${out}/verdict.txt"
grep -E '^(  (files|bytes|failed calls|housekeeping) |verdict)' "${out}/record.txt" | sed 's/^/soak: record: /'
say "files: ${csv} ${out}/soak.png ${out}/record.txt"
exit "${judged}"
