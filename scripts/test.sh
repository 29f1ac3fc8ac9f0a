#!/usr/bin/env bash
# Runs every test: installs what a fresh machine lacks, then builds and tests
# the debug preset, builds everything with clang (lock annotations checked,
# -Wthread-safety as an error) and runs its unit tests, the "lint" step
# (scripts/lint.sh: clang-format and clang-tidy over every source), the asan
# (AddressSanitizer + UndefinedBehaviorSanitizer) preset,
# the concurrency tests under the tsan preset, and the armhf cross build under
# qemu-user; then the "packages" step: the Debian packages for amd64 and armhf
# with their content checks and lintian, the downstream recorder built against
# the amd64 packages, and the API reference. With the debug preset come the
# fault suite (label "faults") and two long checks, once per run: every
# libFuzzer target for 20 s (clang, ASan + UBSan, scripts/fuzz.sh) and a
# 3-minute soak of `ftpdisk record` against vsftpd (scripts/soak.sh). Exits
# non-zero on the first failure.
#
#   scripts/test.sh                # everything
#   FTPDISK_PRESETS="debug" scripts/test.sh      # a subset of presets
#   FTPDISK_PRESETS="packages" scripts/test.sh   # only the packages step
#   FTPDISK_PRESETS="lint" scripts/test.sh       # only the lint step
#   FTPDISK_LONG_CHECKS=0 scripts/test.sh        # without the fuzzing and the soak
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=${FTPDISK_JOBS:-2}
presets=${FTPDISK_PRESETS:-"debug clang lint asan tsan armhf packages"}
# The fault suite (label "faults") waits out real readiness limits for a
# minute or two; it runs in this preset only.
faults_preset=${FTPDISK_FAULTS_PRESET:-debug}

scripts/install-deps.sh

run_preset() {
  local preset=$1
  echo "=== ${preset}: configure and build"
  local started=$SECONDS
  cmake --preset "${preset}" >/dev/null
  case "${preset}" in
    tsan)
      # Under ThreadSanitizer only the tests that run threads against each
      # other are worth their cost: build just those.
      cmake --build --preset "${preset}" -j "${jobs}" --target ftpdisk_tsan_tests
      ;;
    *)
      cmake --build --preset "${preset}" -j "${jobs}"
      ;;
  esac
  echo "=== ${preset}: test"
  case "${preset}" in
    tsan) ctest --preset "${preset}" -L concurrency -j "${jobs}" --no-tests=error ;;
    # The clang build is there for its compile-time lock analysis; the unit
    # tests check that what it built runs.
    clang) ctest --preset "${preset}" -L unit -j "${jobs}" --no-tests=error ;;
    "${faults_preset}") ctest --preset "${preset}" -j "${jobs}" --no-tests=error ;;
    *) ctest --preset "${preset}" -j "${jobs}" --no-tests=error -LE faults ;;
  esac
  echo "=== ${preset}: done in $((SECONDS - started)) s"
  if [ "${preset}" = debug ] && [ "${FTPDISK_LONG_CHECKS:-1}" != 0 ]; then
    long_checks
  fi
}

# The fuzz targets for a bounded time each, and the soak's 3-minute version
# with this preset's build (it fails when descriptors, threads or memory grow
# after the first minute).
long_checks() {
  local started=$SECONDS
  echo "=== fuzz: every target for 20 s"
  scripts/fuzz.sh --seconds 20
  echo "=== fuzz: done in $((SECONDS - started)) s"
  started=$SECONDS
  echo "=== soak: 3 minutes"
  FTPDISK_SOAK_PRESET=debug scripts/soak.sh 0.05 build/soak
  echo "=== soak: done in $((SECONDS - started)) s"
}

run_packages() {
  echo "=== packages: build and check amd64 and armhf, downstream test, API reference"
  local started=$SECONDS
  scripts/package.sh amd64 armhf
  scripts/test-downstream.sh --no-build
  scripts/docs.sh
  echo "=== packages: done in $((SECONDS - started)) s"
  # Reached only when all six passed: amd64 and armhf packages, the three
  # downstream builds, the reference.
  echo "packages: 6 passed, 0 failed"
}

for preset in ${presets}; do
  case "${preset}" in
    armhf)
      if [ "${faults_preset}" = armhf ]; then
        scripts/test-armhf.sh
      else
        scripts/test-armhf.sh -LE faults
      fi
      ;;
    packages) run_packages ;;
    lint) scripts/lint.sh ;;
    *) run_preset "${preset}" ;;
  esac
done
echo "=== all presets passed: ${presets}"
