#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehavior-
# Sanitizer, build/fuzz) and runs each one from its seed corpus, either for a
# number of executions or for a bounded time, then prints per target the
# executions, the time, the coverage (libFuzzer's cov: edges and ft:
# features) and the findings.
#
#   scripts/fuzz.sh                     # 10 million executions per target
#   scripts/fuzz.sh --runs 500000       # another count
#   scripts/fuzz.sh --seconds 20        # at most 20 s per target (CI)
#   scripts/fuzz.sh --seconds 60 fuzz_reply_reader   # some targets only
#
# Every run starts from fuzz/corpus/<name> alone (the corpus it grows is kept
# in build/fuzz/corpus/<target> and thrown away at the next run), so that
# figures can be compared. An input that crashes, breaks a checked property,
# leaks, or takes over 10 s is a finding: libFuzzer stops and writes it to
# build/fuzz/findings/<target>-crash-... (or -leak-, -timeout-); turn it into
# a regression test in tests/ and fix it. Exit status 0 only without findings.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=(-runs=10000000)
label="10000000 executions"
while [ $# -gt 0 ]; do
  case "$1" in
    --runs) mode=(-runs="$2"); label="$2 executions"; shift 2 ;;
    --seconds) mode=(-max_total_time="$2"); label="$2 s"; shift 2 ;;
    --) shift; break ;;
    -*) echo "usage: scripts/fuzz.sh [--runs N | --seconds S] [TARGET...]" >&2; exit 2 ;;
    *) break ;;
  esac
done
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(fuzz_unix_listing fuzz_dos_listing fuzz_location fuzz_reply_reader fuzz_passive_reply)
fi

build=build/fuzz
echo "=== fuzz: build (the fuzz preset: ${build}, clang, coverage, ASan + UBSan)"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "${FTPDISK_JOBS:-2}" --target "${targets[@]}"

mkdir -p "${build}/findings" "${build}/logs"
report=()
failed=()
for target in "${targets[@]}"; do
  seeds=fuzz/corpus/${target#fuzz_}
  corpus=${build}/corpus/${target}
  log=${build}/logs/${target}.txt
  rm -rf "${corpus}"
  mkdir -p "${corpus}"
  echo "=== fuzz: ${target} for ${label} (log ${log})"
  started=${SECONDS}
  status=0
  # Leaks are checked at every input that allocated more than it freed.
  "${build}/fuzz/${target}" "${mode[@]}" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="${build}/findings/${target}-" "${corpus}" "${seeds}" >"${log}" 2>&1 ||
    status=$?
  took=$((SECONDS - started))
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "${log}" | tail -n 1)
  coverage=$(grep -E '^#[0-9]+' "${log}" | tail -n 1 | grep -oE 'cov: [0-9]+ ft: [0-9]+' || true)
  if [ "${status}" -eq 0 ]; then
    findings="none"
  else
    findings="FINDING (exit ${status}): $(grep -m1 -E 'ERROR|broken:|runtime error' "${log}" || echo see log)"
    failed+=("${target}")
  fi
  line=$(printf '%-20s %10s executions in %5d s  %-22s findings: %s' \
    "${target}" "${runs:-?}" "${took}" "${coverage:-cov: ?}" "${findings}")
  echo "${line}"
  report+=("${line}")
done

echo "=== fuzz: summary (${label} per target)"
printf '%s\n' "${report[@]}"
if [ ${#failed[@]} -gt 0 ]; then
  echo "=== fuzz: findings in ${failed[*]}: inputs in ${build}/findings/"
  ls -1 "${build}/findings/"
  exit 1
fi
echo "=== fuzz: no findings"
