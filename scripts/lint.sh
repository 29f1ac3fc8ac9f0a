#!/usr/bin/env bash
# Checks every C++ source of the repository against .clang-format and every
# source of the build against .clang-tidy (through the clang preset's compile
# commands, so the headers each source includes are checked with it).
# Exits non-zero on the first finding of either.
#
#   scripts/lint.sh            # both
#   scripts/lint.sh format     # clang-format only (seconds)
#   scripts/lint.sh tidy       # clang-tidy only
set -euo pipefail
cd "$(dirname "$0")/.."

what=${1:-all}
jobs=${FTPDISK_JOBS:-2}
format=${CLANG_FORMAT:-clang-format-14}
tidy_runner=${RUN_CLANG_TIDY:-run-clang-tidy-14}
tidy=${CLANG_TIDY:-clang-tidy-14}

started=$SECONDS
if [ "${what}" = all ] || [ "${what}" = format ]; then
  echo "=== lint: clang-format"
  git ls-files -z '*.cpp' '*.h' | xargs -0 "${format}" --dry-run --Werror
  echo "=== lint: clang-format clean ($(git ls-files '*.cpp' '*.h' | wc -l) files)"
fi

if [ "${what}" = all ] || [ "${what}" = tidy ]; then
  echo "=== lint: clang-tidy"
  # Configuring is enough: compile_commands.json is all clang-tidy reads.
  cmake --preset clang >/dev/null
  # The build's own sources only: the downstream recorder is a separate
  # project (its host classes, compiled here for the conformance suite too,
  # are a recorder's own code), and generated files are not ours.
  "${tidy_runner}" -clang-tidy-binary "$(command -v "${tidy}")" -p build/clang -j "${jobs}" \
    -quiet "$(pwd)/(src/|hostlib/|conformance/|tools/|tests/(?!downstream/)|bench/|fuzz/)" >build/clang/tidy.log 2>&1 || {
    grep -E "(error|warning): " build/clang/tidy.log | sort -u
    echo "=== lint: clang-tidy found the above (full log: build/clang/tidy.log)"
    exit 1
  }
  echo "=== lint: clang-tidy clean"
fi
echo "=== lint: done in $((SECONDS - started)) s"
