#!/usr/bin/env bash
# Builds the API reference with Doxygen into build/docs/html: the exported
# classes, the pointer and error types, and the host contracts, exactly the
# headers libftpdisk-dev installs. Warnings are errors (an undocumented
# class or member, a broken command): the script then fails.
#
#   scripts/docs.sh && xdg-open build/docs/html/index.html
set -euo pipefail
cd "$(dirname "$0")/.."

command -v doxygen >/dev/null 2>&1 || { echo "docs: doxygen missing: run scripts/install-deps.sh" >&2; exit 2; }
# A configuration of its own, without tests, tools or benchmarks: only the
# header list and the Doxyfile come out of it.
rm -rf build/docs
cmake -S . -B build/docs/cmake -G Ninja -DFTPDISK_BUILD_TESTS=OFF -DFTPDISK_BUILD_TOOLS=OFF \
  -DFTPDISK_BUILD_BENCH=OFF -DFTPDISK_DOCS_DIR="$(pwd)/build/docs" >/dev/null
cmake --build build/docs/cmake --target ftpdisk_docs
echo "docs: $(doxygen --version): build/docs/html/index.html, $(find build/docs/html -name '*.html' | wc -l) pages"
