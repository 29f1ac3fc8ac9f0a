#!/usr/bin/env bash
# Runs every test: installs what a fresh machine lacks, then goes through the
# steps below in order and exits non-zero on the first failure. What each
# preset builds and which tests it runs lives in CMakePresets.json (a workflow
# preset ties its configure, build and test presets; the test preset carries
# the label filter), so `ctest --preset NAME` by hand runs what this script
# runs:
#
#   debug     every test, the fault suite (label "faults") included
#   long      the long checks, once per run: every libFuzzer target for 20 s
#             (clang, ASan + UBSan, scripts/fuzz.sh) and a 3-minute soak of
#             `ftpdisk record` against vsftpd (scripts/soak.sh, debug build)
#   notls     the module built without TLS (FTPDISK_TLS=OFF): it needs no
#             library beyond the C and C++ ones, and its ftps stores fail
#             with a text that says why; the location and TLS unit tests run
#   clang     everything built with clang (lock annotations checked,
#             -Wthread-safety as an error); the unit tests run
#   lint      scripts/lint.sh: clang-format and clang-tidy over every source
#   asan      AddressSanitizer + UndefinedBehaviorSanitizer: all but faults
#   tsan      only the concurrency tests, built and run under ThreadSanitizer
#   armhf     the 32-bit ARM cross build under qemu-user: all but faults
#             (scripts/test-armhf.sh, which also checks the library's machine)
#   packages  the Debian packages for amd64 and armhf with their content
#             checks and lintian, the downstream recorder built against the
#             amd64 packages, and the API reference
#
#   scripts/test.sh                              # every step
#   FTPDISK_PRESETS="debug" scripts/test.sh      # some steps only
#   FTPDISK_PRESETS="packages" scripts/test.sh   # only the packages step
#   FTPDISK_LONG_CHECKS=0 scripts/test.sh        # every step but "long"
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=${FTPDISK_JOBS:-2}
presets=${FTPDISK_PRESETS:-"debug long notls clang lint asan tsan armhf packages"}
# cmake --workflow takes no job count of its own: these reach its build and
# test steps.
export CMAKE_BUILD_PARALLEL_LEVEL=${jobs}
export CTEST_PARALLEL_LEVEL=${jobs}

scripts/install-deps.sh

run_workflow() {
  local preset=$1
  echo "=== ${preset}: configure, build and test (workflow preset ${preset})"
  local started=$SECONDS
  cmake --workflow --preset "${preset}"
  echo "=== ${preset}: done in $((SECONDS - started)) s"
}

run_long_checks() {
  local started=$SECONDS
  echo "=== fuzz: every target for 20 s"
  scripts/fuzz.sh --seconds 20
  echo "=== fuzz: done in $((SECONDS - started)) s"
  started=$SECONDS
  echo "=== soak: 3 minutes"
  FTPDISK_SOAK_PRESET=debug scripts/soak.sh 0.05 build/soak
  echo "=== soak: done in $((SECONDS - started)) s"
}

run_notls() {
  run_workflow notls
  if readelf -d build/notls/src/libftpdisk.so | grep NEEDED | grep -E 'libssl|libcrypto'; then
    echo "notls: the module built without TLS still needs a TLS library" >&2
    return 1
  fi
  echo "notls: the module needs no TLS library"
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
    long)
      if [ "${FTPDISK_LONG_CHECKS:-1}" != 0 ]; then
        run_long_checks
      fi
      ;;
    armhf) scripts/test-armhf.sh ;;
    notls) run_notls ;;
    packages) run_packages ;;
    lint) scripts/lint.sh ;;
    *) run_workflow "${preset}" ;;
  esac
done
echo "=== all steps passed: ${presets}"
